// Whom the certificates of a bundle are for.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The subjects of a text's PEM certificates (RFC 7468), in their order, each on one line ("CN =
// Example Root, O = Example, C = GB") without control characters. What lies between certificates is
// passed over, and so is one that cannot be read. Callable from any thread.
std::vector<std::string> CertificateSubjects(std::string_view pem);
