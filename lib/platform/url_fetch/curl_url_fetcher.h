// Fetching with libcurl.
#pragma once

#include <string>

#include "lib/platform/url_fetcher.h"

// Each Fetch is a transfer of its own on the caller's thread; the object holds nothing that
// changes. Peers of https are verified against "/etc/ssl/certs/ca-certificates.crt". Up to 16
// redirections are followed; one that leads from https to http is refused, since what is fetched is
// run.
class CurlUrlFetcher final : public UrlFetcher {
 public:
  // Initialises libcurl for the process; create the first one while no other thread runs.
  CurlUrlFetcher();
  Response Fetch(const Request& request, std::stop_token stop) override;
};

// "Orvex/{version} ({model})" of the firmware's version file and the model that is given.
std::string DefaultUserAgent(const std::string& model);
