// The exporter's web configuration: the YAML file that fleet exporters share
// (`--web.config.file`): TLS for the listening socket and basic authentication.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace zelk::cli {

// tls_server_config.client_auth_type, in the file's words: NoClientCert, RequestClientCert,
// RequireAnyClientCert, VerifyClientCertIfGiven, RequireAndVerifyClientCert.
enum class ClientAuth { kNone, kRequest, kRequireAny, kVerifyIfGiven, kRequireAndVerify };

// TLS 1.2 and 1.3 only; older versions are refused when the file is read.
enum class TlsVersion { kTls12, kTls13 };

struct TlsConfig {
  // As the file names them, resolved against the file's own directory.
  std::string certFile, keyFile, clientCaFile;
  ClientAuth clientAuth = ClientAuth::kNone;
  TlsVersion minVersion = TlsVersion::kTls12, maxVersion = TlsVersion::kTls13;
  // The PEM texts: of the files above, filled by loadWebConfig; or given inline in the file
  // (cert, key, client_ca), filled by parseWebConfig with the file name left empty.
  std::string certPem, keyPem, clientCaPem;
};

struct WebConfig {
  std::optional<TlsConfig> tls;                       // absent: plain HTTP
  std::map<std::string, std::string> basicAuthUsers;  // user -> bcrypt hash; empty: no auth
};

// The file's text; `baseDir` resolves relative file names. "" on success, else one line that
// names the field, such as "tls_server_config.min_version: TLS 1.2 or 1.3 only, not TLS11".
// Reads no file.
std::string parseWebConfig(const std::string& text, const std::string& baseDir, WebConfig* config);

// Reads the file at `path`, parses it, and reads the TLS files it names, checking that the key
// belongs to the certificate. "" on success, else one line naming the file and the field.
std::string loadWebConfig(const std::string& path, WebConfig* config);

}  // namespace zelk::cli
