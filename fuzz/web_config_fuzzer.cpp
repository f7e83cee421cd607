// Any bytes as the exporter's web configuration file. An error is one line; an accepted file
// gives TLS with a certificate, its key and ordered versions, a CA where clients are verified,
// and a bcrypt hash for every user.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "serve/web_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  zelk::cli::WebConfig config;
  const std::string error = zelk::cli::parseWebConfig(text, "/etc/zelk", &config);
  if (!error.empty()) {
    if (error.find('\n') != std::string::npos || !config.basicAuthUsers.empty() || config.tls) {
      abort();
    }
    return 0;
  }
  if (config.tls) {
    const zelk::cli::TlsConfig& tls = *config.tls;
    if (tls.certFile.empty() == tls.certPem.empty()) abort();  // one of the two, never both
    if (tls.keyFile.empty() == tls.keyPem.empty()) abort();
    for (const std::string* file : {&tls.certFile, &tls.keyFile, &tls.clientCaFile}) {
      if (!file->empty() && (*file)[0] != '/') abort();  // resolved against the base
    }
    if (tls.minVersion == zelk::cli::TlsVersion::kTls13 &&
        tls.maxVersion == zelk::cli::TlsVersion::kTls12) {
      abort();
    }
    const bool verifies = tls.clientAuth == zelk::cli::ClientAuth::kVerifyIfGiven ||
                          tls.clientAuth == zelk::cli::ClientAuth::kRequireAndVerify;
    if (verifies && tls.clientCaFile.empty() && tls.clientCaPem.empty()) abort();
  }
  for (const auto& [user, hash] : config.basicAuthUsers) {
    if (user.empty() || user.find(':') != std::string::npos) abort();
    if (hash.size() != 60 || hash.compare(0, 2, "$2") != 0) abort();
  }
  return 0;
}
