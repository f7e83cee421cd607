// The exporter-toolkit's web configuration file, read with yaml-cpp (the YAML parser Debian
// ships for C++). Unknown fields are refused, as the toolkit's strict unmarshalling does, so a
// misspelt field never passes as a default.
#include "serve/web_config.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <unistd.h>
#include <yaml-cpp/yaml.h>

#include <cerrno>
#include <cstring>
#include <set>

namespace zelk::cli {
namespace {

// The configuration and PEM files are small; a bound keeps a wrong path (a log, a device)
// from filling memory.
constexpr size_t kMaxFileBytes = 1 << 20;

// A name or value from the file, fit for a one-line error: control bytes escaped, and cut.
std::string printable(const std::string& text) {
  constexpr size_t kMaxShown = 80;
  std::string shown;
  for (size_t i = 0; i < text.size() && i < kMaxShown; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == 0x7f) {
      static const char kHex[] = "0123456789abcdef";
      shown += std::string("\\x") + kHex[c >> 4] + kHex[c & 15];
    } else {
      shown += static_cast<char>(c);
    }
  }
  return text.size() > kMaxShown ? shown + "..." : shown;
}

// A field's value as one line: the name of the field, then what is wrong with it.
std::string fieldError(const std::string& field, const std::string& what) {
  return field + ": " + what;
}

// The value as text, or an error; a null value reads as "" (the field left out).
std::string scalar(const YAML::Node& node, const std::string& field, std::string* value) {
  if (node.IsNull()) {
    value->clear();
    return "";
  }
  if (!node.IsScalar()) return fieldError(field, "expected a string");
  *value = node.Scalar();
  return "";
}

std::string boolean(const YAML::Node& node, const std::string& field) {
  if (node.IsNull()) return "";
  bool value;
  if (!node.IsScalar() || !YAML::convert<bool>::decode(node, value)) {
    return fieldError(field, "expected true or false");
  }
  return "";
}

// A list the toolkit takes to narrow what TLS allows. This exporter leaves those choices to
// GnuTLS's defaults for TLS 1.2 and 1.3, so a list that asks for more is refused rather than
// ignored: an operator who narrowed them would otherwise run with wider settings unaware.
std::string emptyListOnly(const YAML::Node& node, const std::string& field,
                          const std::string& why) {
  if (node.IsNull() || (node.IsSequence() && node.size() == 0)) return "";
  if (!node.IsSequence()) return fieldError(field, "expected a list");
  return fieldError(field, "not supported by this exporter (" + why + "); remove it");
}

// Iterates a mapping's fields in the file's order, refusing non-string and repeated names
// (yaml-cpp keeps the first of two equal keys, the toolkit refuses them).
template <typename Visit>
std::string forEachField(const YAML::Node& map, const std::string& prefix, Visit visit) {
  std::set<std::string> seen;
  for (const auto& field : map) {
    if (!field.first.IsScalar()) return fieldError(prefix, "field names must be strings");
    const std::string name = field.first.Scalar();
    const std::string path = prefix.empty() ? printable(name) : prefix + "." + printable(name);
    if (!seen.insert(name).second) return "repeated field: " + path;
    if (std::string error = visit(name, path, field.second); !error.empty()) return error;
  }
  return "";
}

std::string resolve(const std::string& baseDir, const std::string& file) {
  if (file.empty() || file[0] == '/' || baseDir.empty()) return file;
  return baseDir.back() == '/' ? baseDir + file : baseDir + "/" + file;
}

std::string tlsVersion(const YAML::Node& node, const std::string& field, TlsVersion* version) {
  std::string name;
  if (std::string error = scalar(node, field, &name); !error.empty()) return error;
  if (name.empty()) return "";  // the default
  if (name == "TLS12") {
    *version = TlsVersion::kTls12;
  } else if (name == "TLS13") {
    *version = TlsVersion::kTls13;
  } else if (name == "TLS10" || name == "TLS11") {
    return fieldError(field, "TLS 1.2 or 1.3 only, not " + name);
  } else {
    return fieldError(field, "unknown TLS version " + printable(name) + " (TLS12 or TLS13)");
  }
  return "";
}

std::string clientAuth(const YAML::Node& node, const std::string& field, ClientAuth* auth) {
  static const std::pair<const char*, ClientAuth> kNames[] = {
      {"NoClientCert", ClientAuth::kNone},
      {"RequestClientCert", ClientAuth::kRequest},
      {"RequireAnyClientCert", ClientAuth::kRequireAny},
      {"VerifyClientCertIfGiven", ClientAuth::kVerifyIfGiven},
      {"RequireAndVerifyClientCert", ClientAuth::kRequireAndVerify}};
  std::string name;
  if (std::string error = scalar(node, field, &name); !error.empty()) return error;
  if (name.empty()) return "";
  for (const auto& [known, value] : kNames) {
    if (name == known) {
      *auth = value;
      return "";
    }
  }
  return fieldError(field, "unknown type " + printable(name) +
                               " (NoClientCert, RequestClientCert, RequireAnyClientCert, "
                               "VerifyClientCertIfGiven or RequireAndVerifyClientCert)");
}

// A file name or an inline PEM text, never both, as the toolkit has it.
struct Source {
  std::string file, text;
};

std::string tlsServerConfig(const YAML::Node& node, const std::string& baseDir,
                            std::optional<TlsConfig>* out) {
  const std::string prefix = "tls_server_config";
  if (node.IsNull() || (node.IsMap() && node.size() == 0)) return "";  // plain HTTP
  if (!node.IsMap()) return fieldError(prefix, "expected a mapping of fields");
  TlsConfig tls;
  Source cert, key, ca;
  std::string error =
      forEachField(node, prefix,
                   [&](const std::string& name, const std::string& path,
                       const YAML::Node& value) -> std::string {
                     if (name == "cert_file") return scalar(value, path, &cert.file);
                     if (name == "key_file") return scalar(value, path, &key.file);
                     if (name == "client_ca_file") return scalar(value, path, &ca.file);
                     if (name == "cert") return scalar(value, path, &cert.text);
                     if (name == "key") return scalar(value, path, &key.text);
                     if (name == "client_ca") return scalar(value, path, &ca.text);
                     if (name == "client_auth_type")
                       return clientAuth(value, path, &tls.clientAuth);
                     if (name == "min_version") return tlsVersion(value, path, &tls.minVersion);
                     if (name == "max_version") return tlsVersion(value, path, &tls.maxVersion);
                     if (name == "cipher_suites")
                       return emptyListOnly(value, path, "it uses GnuTLS's ciphers");
                     if (name == "curve_preferences")
                       return emptyListOnly(value, path, "it uses GnuTLS's curves");
                     if (name == "client_allowed_sans") {
                       return emptyListOnly(value, path, "it checks no client certificate's names");
                     }
                     // Only the server's order of cipher_suites, which must be empty here.
                     if (name == "prefer_server_cipher_suites") return boolean(value, path);
                     return "unknown field: " + path;
                   });
  if (!error.empty()) return error;

  const auto pick = [&](const Source& source, const char* fileField, const char* textField,
                        std::string* file, std::string* pem) -> std::string {
    if (!source.file.empty() && !source.text.empty()) {
      return fieldError(prefix,
                        std::string("both ") + fileField + " and " + textField + " given; use one");
    }
    if (source.file.find('\0') != std::string::npos) {
      return fieldError(prefix + "." + fileField, "a file name cannot hold a NUL byte");
    }
    *file = resolve(baseDir, source.file);
    *pem = source.text;
    return "";
  };
  if (!(error = pick(cert, "cert_file", "cert", &tls.certFile, &tls.certPem)).empty() ||
      !(error = pick(key, "key_file", "key", &tls.keyFile, &tls.keyPem)).empty() ||
      !(error = pick(ca, "client_ca_file", "client_ca", &tls.clientCaFile, &tls.clientCaPem))
           .empty()) {
    return error;
  }
  if (tls.certFile.empty() && tls.certPem.empty()) {
    return fieldError(prefix, "cert_file is required (or cert, the certificate itself)");
  }
  if (tls.keyFile.empty() && tls.keyPem.empty()) {
    return fieldError(prefix, "key_file is required (or key, the key itself)");
  }
  const bool hasCa = !tls.clientCaFile.empty() || !tls.clientCaPem.empty();
  const bool verifies = tls.clientAuth == ClientAuth::kVerifyIfGiven ||
                        tls.clientAuth == ClientAuth::kRequireAndVerify;
  if (verifies && !hasCa) {
    return fieldError(prefix + ".client_ca_file", "required to verify client certificates");
  }
  // The toolkit refuses this too: a CA that nothing uses suggests clients are checked.
  if (hasCa && tls.clientAuth == ClientAuth::kNone) {
    return fieldError(prefix + ".client_auth_type",
                      "a client CA is given but no client certificate is asked for");
  }
  if (tls.minVersion == TlsVersion::kTls13 && tls.maxVersion == TlsVersion::kTls12) {
    return fieldError(prefix + ".min_version", "TLS13 is above max_version TLS12");
  }
  *out = std::move(tls);
  return "";
}

// Response headers matter to browsers; refused rather than dropped, except blank ones, which
// the toolkit also leaves unset.
std::string httpServerConfig(const YAML::Node& node) {
  const std::string prefix = "http_server_config";
  if (node.IsNull()) return "";
  if (!node.IsMap()) return fieldError(prefix, "expected a mapping of fields");
  return forEachField(
      node, prefix,
      [](const std::string& name, const std::string& path, const YAML::Node& value) -> std::string {
        // This server speaks HTTP/1.1 only, which http2 permits either way.
        if (name == "http2") return boolean(value, path);
        if (name != "headers") return "unknown field: " + path;
        if (value.IsNull()) return "";
        if (!value.IsMap()) return fieldError(path, "expected a mapping");
        return forEachField(value, path,
                            [](const std::string&, const std::string& header,
                               const YAML::Node& text) -> std::string {
                              std::string set;
                              std::string error = scalar(text, header, &set);
                              if (!error.empty() || set.empty()) return error;
                              return fieldError(header,
                                                "response headers are not "
                                                "supported by this exporter");
                            });
      });
}

// bcrypt's modular form: $2a$, $2b$ or $2y$, a two-digit cost from 04 to 31, and 53 characters
// of its base-64 alphabet (22 of salt, 31 of hash).
bool isBcryptHash(const std::string& hash) {
  if (hash.size() != 60 || hash[0] != '$' || hash[1] != '2' || hash[3] != '$' || hash[6] != '$') {
    return false;
  }
  if (hash[2] != 'a' && hash[2] != 'b' && hash[2] != 'y') return false;
  if (hash[4] < '0' || hash[4] > '3' || hash[5] < '0' || hash[5] > '9') return false;
  const int cost = (hash[4] - '0') * 10 + (hash[5] - '0');
  if (cost < 4 || cost > 31) return false;
  for (size_t i = 7; i < hash.size(); ++i) {
    const char c = hash[i];
    if (!(c == '.' || c == '/' || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
          (c >= '0' && c <= '9'))) {
      return false;
    }
  }
  return true;
}

std::string basicAuthUsers(const YAML::Node& node, std::map<std::string, std::string>* users) {
  const std::string prefix = "basic_auth_users";
  if (node.IsNull()) return "";
  if (!node.IsMap()) return fieldError(prefix, "expected a mapping of users to bcrypt hashes");
  return forEachField(node, prefix,
                      [&](const std::string& user, const std::string& path,
                          const YAML::Node& value) -> std::string {
                        // RFC 7617: the user ends at the first colon.
                        if (user.empty() || user.find(':') != std::string::npos) {
                          return fieldError(path, "a user name is not empty and holds no ':'");
                        }
                        std::string hash;
                        if (std::string error = scalar(value, path, &hash); !error.empty()) {
                          return error;
                        }
                        if (!isBcryptHash(hash)) return fieldError(path, "not a bcrypt hash");
                        (*users)[user] = hash;
                        return "";
                      });
}

std::string parseDocument(const std::string& text, const std::string& baseDir, WebConfig* config) {
  YAML::Node root;
  try {
    root = YAML::Load(text);
  } catch (const YAML::Exception& e) {
    if (e.mark.is_null()) return "YAML syntax: " + printable(e.msg);
    return "YAML syntax: line " + std::to_string(e.mark.line + 1) + ", column " +
           std::to_string(e.mark.column + 1) + ": " + printable(e.msg);
  }
  if (root.IsNull()) return "";
  if (!root.IsMap()) return "the file is not a mapping of fields";
  return forEachField(root, "",
                      [&](const std::string& name, const std::string& path,
                          const YAML::Node& value) -> std::string {
                        if (name == "tls_server_config") {
                          return tlsServerConfig(value, baseDir, &config->tls);
                        }
                        if (name == "http_server_config") return httpServerConfig(value);
                        if (name == "basic_auth_users") {
                          return basicAuthUsers(value, &config->basicAuthUsers);
                        }
                        // A limit dropped in silence would leave the endpoint open to floods.
                        if (name == "rate_limit") {
                          return fieldError(path, "not supported by this exporter; remove it");
                        }
                        return "unknown field: " + path;
                      });
}

// Reads at most kMaxFileBytes; "" or the error as "path: reason".
std::string readBounded(const std::string& path, std::string* text) {
  const android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return printable(path) + ": " + strerror(errno);
  text->clear();
  char buffer[16384];
  for (;;) {
    const ssize_t n = TEMP_FAILURE_RETRY(read(fd.get(), buffer, sizeof(buffer)));
    if (n < 0) return printable(path) + ": " + strerror(errno);
    if (n == 0) return "";
    if (text->size() + static_cast<size_t>(n) > kMaxFileBytes) {
      return printable(path) + ": larger than " + std::to_string(kMaxFileBytes >> 20) + " MiB";
    }
    text->append(buffer, static_cast<size_t>(n));
  }
}

gnutls_datum_t datum(const std::string& text) {
  return {reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
          static_cast<unsigned int>(text.size())};
}

// Where a PEM text came from, for errors: the field and its file, or the inline field.
std::string origin(const std::string& file, const char* fileField, const char* textField) {
  return file.empty() ? std::string("tls_server_config.") + textField
                      : std::string("tls_server_config.") + fileField + ": " + printable(file);
}

// GnuTLS reads the pair and the CA now, so that a wrong file fails at start and not at the
// first handshake.
std::string checkPems(const TlsConfig& tls) {
  gnutls_certificate_credentials_t credentials;
  if (gnutls_certificate_allocate_credentials(&credentials) != GNUTLS_E_SUCCESS) {
    return "tls_server_config: GnuTLS cannot allocate credentials";
  }
  std::string error;
  const gnutls_datum_t cert = datum(tls.certPem), key = datum(tls.keyPem);
  const int status =
      gnutls_certificate_set_x509_key_mem(credentials, &cert, &key, GNUTLS_X509_FMT_PEM);
  if (status == GNUTLS_E_CERTIFICATE_KEY_MISMATCH) {
    error = origin(tls.keyFile, "key_file", "key") + ": not the key of the certificate in " +
            origin(tls.certFile, "cert_file", "cert");
  } else if (status < 0) {
    // GnuTLS does not say which of the two it could not read: try the certificate alone.
    gnutls_x509_crt_t parsed;
    bool certOk = false;
    if (gnutls_x509_crt_init(&parsed) == GNUTLS_E_SUCCESS) {
      certOk = gnutls_x509_crt_import(parsed, &cert, GNUTLS_X509_FMT_PEM) == GNUTLS_E_SUCCESS;
      gnutls_x509_crt_deinit(parsed);
    }
    error = certOk ? origin(tls.keyFile, "key_file", "key") + ": not a PEM private key (" +
                         gnutls_strerror(status) + ")"
                   : origin(tls.certFile, "cert_file", "cert") + ": not a PEM certificate (" +
                         gnutls_strerror(status) + ")";
  } else if (!tls.clientCaPem.empty() || !tls.clientCaFile.empty()) {
    const gnutls_datum_t ca = datum(tls.clientCaPem);
    const int count = gnutls_certificate_set_x509_trust_mem(credentials, &ca, GNUTLS_X509_FMT_PEM);
    if (count <= 0) {
      error = origin(tls.clientCaFile, "client_ca_file", "client_ca") +
              ": holds no PEM certificate" +
              (count < 0 ? std::string(" (") + gnutls_strerror(count) + ")" : "");
    }
  }
  gnutls_certificate_free_credentials(credentials);
  return error;
}

}  // namespace

std::string parseWebConfig(const std::string& text, const std::string& baseDir, WebConfig* config) {
  WebConfig parsed;
  std::string error;
  try {
    error = parseDocument(text, baseDir, &parsed);
  } catch (const std::exception& e) {  // yaml-cpp throws from node access too
    error = "YAML: " + printable(e.what());
  }
  if (error.empty()) *config = std::move(parsed);
  return error;
}

std::string loadWebConfig(const std::string& path, WebConfig* config) {
  std::string text;
  if (std::string error = readBounded(path, &text); !error.empty()) return error;
  const size_t slash = path.rfind('/');
  const std::string baseDir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  WebConfig parsed;
  if (std::string error = parseWebConfig(text, baseDir, &parsed); !error.empty()) {
    return printable(path) + ": " + error;
  }
  if (parsed.tls) {
    TlsConfig& tls = *parsed.tls;
    const std::pair<const char*, std::pair<const std::string*, std::string*>> files[] = {
        {"cert_file", {&tls.certFile, &tls.certPem}},
        {"key_file", {&tls.keyFile, &tls.keyPem}},
        {"client_ca_file", {&tls.clientCaFile, &tls.clientCaPem}}};
    for (const auto& [field, file] : files) {
      if (file.first->empty()) continue;  // inline, or no client CA
      if (std::string error = readBounded(*file.first, file.second); !error.empty()) {
        return printable(path) + ": tls_server_config." + field + ": " + error;
      }
    }
    if (std::string error = checkPems(tls); !error.empty()) return printable(path) + ": " + error;
  }
  *config = std::move(parsed);
  return "";
}

}  // namespace zelk::cli
