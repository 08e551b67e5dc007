// Each certificate is handed to libcrypto by itself, so that one that is damaged costs no other.
#include "lib/platform/certificates/certificate_names.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <memory>
#include <new>

namespace {

constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view kEnd = "-----END CERTIFICATE-----";
// A certificate has a few kilobytes; one beyond this is none.
constexpr size_t kMaxCertificate = 256 * 1024;

using Bio = std::unique_ptr<BIO, decltype(&BIO_free_all)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

std::string Subject(std::string_view pem) {
  const Bio in(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free_all);
  const Bio out(BIO_new(BIO_s_mem()), BIO_free_all);
  if (in == nullptr || out == nullptr) throw std::bad_alloc();
  const Certificate certificate(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr), X509_free);
  // Names in other alphabets are shown as they are; the escaping of control characters stays.
  constexpr unsigned long kForm = (XN_FLAG_ONELINE | ASN1_STRFLGS_UTF8_CONVERT) &
                                  ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
  if (certificate == nullptr ||
      X509_NAME_print_ex(out.get(), X509_get_subject_name(certificate.get()), 0, kForm) < 0) {
    ERR_clear_error();
    return {};
  }
  char* text = nullptr;
  const long size = BIO_get_mem_data(out.get(), &text);
  return size > 0 ? std::string(text, static_cast<size_t>(size)) : std::string();
}

}  // namespace

std::vector<std::string> CertificateSubjects(std::string_view pem) {
  std::vector<std::string> subjects;
  for (;;) {
    const size_t begin = pem.find(kBegin);
    if (begin == std::string_view::npos) return subjects;
    pem.remove_prefix(begin);
    const size_t end = pem.find(kEnd);
    if (end == std::string_view::npos) return subjects;
    const size_t size = end + kEnd.size();
    if (size <= kMaxCertificate) {
      std::string subject = Subject(pem.substr(0, size));
      if (!subject.empty()) subjects.push_back(std::move(subject));
    }
    pem.remove_prefix(size);
  }
}
