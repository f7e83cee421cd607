// The exporter's web configuration: the toolkit's file format, its PEM files checked by GnuTLS,
// and basic authentication against bcrypt hashes made here with libcrypt.
#include "serve/web_config.h"

#include <crypt.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "serve/basic_auth.h"

namespace zelk::cli {
namespace {

// From the toolkit's example file.
constexpr char kAliceHash[] = "$2y$10$mDwo.lAisC94iLAyP81MCesa29IzH37oigHC/42V2pdJlUprsJPze";

struct Row {
  const char* text;
  const char* error;  // "" for a valid file
};

TEST(ParseWebConfigTest, ValidAndMalformedRows) {
  const std::string alice = std::string("basic_auth_users:\n  alice: ") + kAliceHash + "\n";
  const std::string tls = "tls_server_config:\n  cert_file: c.pem\n  key_file: k.pem\n";
  const std::vector<std::pair<std::string, std::string>> rows = {
      // No TLS, no users.
      {"", ""},
      {"# comments only\n", ""},
      {"---\n", ""},
      {"tls_server_config:\nbasic_auth_users:\n", ""},
      {"tls_server_config: {}\n", ""},
      {"http_server_config:\n  http2: false\n  headers:\n    X-Frame-Options: ''\n", ""},
      // The toolkit's fields that narrow nothing when empty.
      {tls + "  cipher_suites: []\n  curve_preferences: []\n  client_allowed_sans: []\n"
             "  prefer_server_cipher_suites: true\n",
       ""},
      {tls + alice, ""},
      {tls + "  client_auth_type: RequireAndVerifyClientCert\n  client_ca_file: ca.pem\n", ""},
      {tls + "  client_auth_type: RequireAnyClientCert\n", ""},
      {tls + "  min_version: TLS13\n  max_version: TLS13\n", ""},
      // The document's shape.
      {"just text\n", "the file is not a mapping of fields"},
      {"- a\n- b\n", "the file is not a mapping of fields"},
      {"tls_server_config:\n  cert_file: [a\n",
       "YAML syntax: line 3, column 1: end of sequence"
       " flow not found"},
      {"a: b\n c: d\n", "YAML syntax: line 2, column 3: illegal map value"},
      {"tls_server_config: yes\n", "tls_server_config: expected a mapping of fields"},
      {"web: 1\n", "unknown field: web"},
      {"\"web\\nconfig\": 1\n", "unknown field: web\\x0aconfig"},
      {tls + "  cert_fil: c.pem\n", "unknown field: tls_server_config.cert_fil"},
      {tls + "  key_file: other.pem\n", "repeated field: tls_server_config.key_file"},
      {"http_server_config:\n  http3: true\n", "unknown field: http_server_config.http3"},
      {"? [a]\n: b\n", ": field names must be strings"},
      // TLS: the pair, the client's certificate, the versions.
      {"tls_server_config:\n  cert_file: c.pem\n",
       "tls_server_config: key_file is required (or key, the key itself)"},
      {"tls_server_config:\n  min_version: TLS12\n",
       "tls_server_config: cert_file is required (or cert, the certificate itself)"},
      {tls + "  cert: \"-----BEGIN CERTIFICATE-----\"\n",
       "tls_server_config: both cert_file and cert given; use one"},
      {tls + "  cert_file: [c.pem]\n", "repeated field: tls_server_config.cert_file"},
      {"tls_server_config:\n  cert_file: [c.pem]\n  key_file: k.pem\n",
       "tls_server_config.cert_file: expected a string"},
      {"tls_server_config:\n  cert_file: \"c\\0.pem\"\n  key_file: k.pem\n",
       "tls_server_config.cert_file: a file name cannot hold a NUL byte"},
      {tls + "  client_auth_type: VerifyClientCertIfGiven\n",
       "tls_server_config.client_ca_file: required to verify client certificates"},
      {tls + "  client_auth_type: RequireAndVerifyClientCert\n",
       "tls_server_config.client_ca_file: required to verify client certificates"},
      {tls + "  client_ca_file: ca.pem\n",
       "tls_server_config.client_auth_type: a client CA is given but no client certificate is "
       "asked for"},
      {tls + "  client_auth_type: VerifyAll\n",
       "tls_server_config.client_auth_type: unknown type VerifyAll (NoClientCert, "
       "RequestClientCert, RequireAnyClientCert, VerifyClientCertIfGiven or "
       "RequireAndVerifyClientCert)"},
      {tls + "  min_version: TLS11\n",
       "tls_server_config.min_version: TLS 1.2 or 1.3 only, not TLS11"},
      {tls + "  max_version: TLS10\n",
       "tls_server_config.max_version: TLS 1.2 or 1.3 only, not TLS10"},
      {tls + "  min_version: SSL3\n",
       "tls_server_config.min_version: unknown TLS version SSL3 (TLS12 or TLS13)"},
      {tls + "  min_version: TLS13\n  max_version: TLS12\n",
       "tls_server_config.min_version: TLS13 is above max_version TLS12"},
      // What would narrow TLS is refused rather than ignored.
      {tls + "  cipher_suites: [TLS_ECDHE_ECDSA_WITH_AES_256_GCM_SHA384]\n",
       "tls_server_config.cipher_suites: not supported by this exporter (it uses GnuTLS's "
       "ciphers); remove it"},
      {tls + "  curve_preferences:\n    - X25519\n",
       "tls_server_config.curve_preferences: not supported by this exporter (it uses GnuTLS's "
       "curves); remove it"},
      {tls + "  client_auth_type: RequireAnyClientCert\n  client_allowed_sans: [scraper]\n",
       "tls_server_config.client_allowed_sans: not supported by this exporter (it checks no "
       "client certificate's names); remove it"},
      {tls + "  prefer_server_cipher_suites: maybe\n",
       "tls_server_config.prefer_server_cipher_suites: expected true or false"},
      {"http_server_config:\n  headers:\n    Strict-Transport-Security: max-age=31536000\n",
       "http_server_config.headers.Strict-Transport-Security: response headers are not "
       "supported by this exporter"},
      {"http_server_config:\n  http2: 2\n", "http_server_config.http2: expected true or false"},
      {"rate_limit:\n  interval: 1s\n  burst: 20\n",
       "rate_limit: not supported by this exporter; remove it"},
      // Users.
      {"basic_auth_users:\n  alice: secret\n", "basic_auth_users.alice: not a bcrypt hash"},
      {"basic_auth_users:\n  alice: $1$abc$0123456789abcdefghijkl\n",
       "basic_auth_users.alice: not a bcrypt hash"},
      // One character short, a cost out of range, a character out of the alphabet.
      {"basic_auth_users:\n  alice: $2y$10$mDwo.lAisC94iLAyP81MCesa29IzH37oigHC/42V2pdJlUprsJPz\n",
       "basic_auth_users.alice: not a bcrypt hash"},
      {"basic_auth_users:\n  alice: $2y$03$mDwo.lAisC94iLAyP81MCesa29IzH37oigHC/42V2pdJlUprsJPze\n",
       "basic_auth_users.alice: not a bcrypt hash"},
      {"basic_auth_users:\n  alice: $2y$10$mDwo.lAisC94iLAyP81MCesa29IzH37oigHC/42V2pdJlUprsJPz!"
       "\n",
       "basic_auth_users.alice: not a bcrypt hash"},
      {"basic_auth_users:\n  alice:\n", "basic_auth_users.alice: not a bcrypt hash"},
      {"basic_auth_users:\n  \"a:b\": x\n",
       "basic_auth_users.a:b: a user name is not empty and holds no ':'"},
      {alice + "  alice: " + kAliceHash + "\n", "repeated field: basic_auth_users.alice"},
      {"basic_auth_users: [alice]\n",
       "basic_auth_users: expected a mapping of users to bcrypt hashes"},
  };
  for (const auto& [text, error] : rows) {
    WebConfig config;
    config.basicAuthUsers["left"] = "alone";  // a failed parse leaves the output as it was
    EXPECT_EQ(parseWebConfig(text, "/etc/zelk", &config), error) << text;
    if (!error.empty()) {
      EXPECT_EQ(config.basicAuthUsers.size(), 1u) << text;
    } else {
      EXPECT_EQ(config.basicAuthUsers.count("left"), 0u) << text;
    }
  }
}

TEST(ParseWebConfigTest, FieldsAndPaths) {
  WebConfig config;
  ASSERT_EQ(parseWebConfig(std::string("tls_server_config:\n"
                                       "  cert_file: certs/server.crt\n"
                                       "  key_file: /etc/keys/server.key\n"
                                       "  client_auth_type: VerifyClientCertIfGiven\n"
                                       "  client_ca_file: ca.pem\n"
                                       "  min_version: TLS13\n"
                                       "basic_auth_users:\n"
                                       "  alice: ") +
                               kAliceHash + "\n  bob: " + kAliceHash + "\n",
                           "/etc/zelk/", &config),
            "");
  ASSERT_TRUE(config.tls.has_value());
  EXPECT_EQ(config.tls->certFile, "/etc/zelk/certs/server.crt");
  EXPECT_EQ(config.tls->keyFile, "/etc/keys/server.key");
  EXPECT_EQ(config.tls->clientCaFile, "/etc/zelk/ca.pem");
  EXPECT_EQ(config.tls->clientAuth, ClientAuth::kVerifyIfGiven);
  EXPECT_EQ(config.tls->minVersion, TlsVersion::kTls13);
  EXPECT_EQ(config.tls->maxVersion, TlsVersion::kTls13);
  EXPECT_EQ(config.tls->certPem, "");
  EXPECT_EQ(config.basicAuthUsers,
            (std::map<std::string, std::string>{{"alice", kAliceHash}, {"bob", kAliceHash}}));

  // Inline PEM texts, and a base directory without its slash.
  ASSERT_EQ(parseWebConfig("tls_server_config:\n  cert: |\n    CERT\n  key_file: k.pem\n",
                           "/etc/zelk", &config),
            "");
  ASSERT_TRUE(config.tls.has_value());
  EXPECT_EQ(config.tls->certFile, "");
  EXPECT_EQ(config.tls->certPem, "CERT\n");
  EXPECT_EQ(config.tls->keyFile, "/etc/zelk/k.pem");
  EXPECT_EQ(config.tls->minVersion, TlsVersion::kTls12);
  EXPECT_TRUE(config.basicAuthUsers.empty());

  ASSERT_EQ(parseWebConfig("", "/etc/zelk", &config), "");
  EXPECT_FALSE(config.tls.has_value());
}

// A temporary folder with a certificate, its key, a second key and a CA made by openssl.
class WebConfigFiles : public testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/zelk-webcfg-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    for (const std::string name : {"server", "other"}) {
      const std::string command =
          "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 1 "
          "-subj /CN=" +
          name + " -keyout " + dir_ + "/" + name + ".key -out " + dir_ + "/" + name +
          ".crt 2>/dev/null";
      ASSERT_EQ(system(command.c_str()), 0) << command;
    }
  }
  void TearDown() override {
    if (!dir_.empty()) system(("rm -rf " + dir_).c_str());
  }
  std::string write(const std::string& name, const std::string& text) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }
  static std::string read(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  std::string dir_;
};

TEST_F(WebConfigFiles, LoadWebConfig) {
  WebConfig config;
  // Relative names resolve against the file's folder, not the working directory.
  const std::string good =
      write("good.yml",
            "tls_server_config:\n  cert_file: server.crt\n  key_file: server.key\n"
            "  client_auth_type: RequireAndVerifyClientCert\n  client_ca_file: other.crt\n");
  ASSERT_EQ(loadWebConfig(good, &config), "");
  ASSERT_TRUE(config.tls.has_value());
  EXPECT_EQ(config.tls->certFile, dir_ + "/server.crt");
  EXPECT_EQ(config.tls->certPem, read(dir_ + "/server.crt"));
  EXPECT_EQ(config.tls->keyPem, read(dir_ + "/server.key"));
  EXPECT_EQ(config.tls->clientCaPem, read(dir_ + "/other.crt"));
  EXPECT_NE(config.tls->certPem.find("BEGIN CERTIFICATE"), std::string::npos);

  // The same, with the texts inline.
  std::string inlined = "tls_server_config:\n  cert: |\n";
  for (const char* name : {"server.crt", "server.key"}) {
    std::string pem = read(dir_ + "/" + name), indented;
    for (size_t at = 0, end; at < pem.size(); at = end + 1) {
      end = pem.find('\n', at);
      indented += "    " + pem.substr(at, end - at) + "\n";
    }
    inlined += indented + (name[7] == 'c' ? "  key: |\n" : "");
  }
  ASSERT_EQ(loadWebConfig(write("inline.yml", inlined), &config), "");
  EXPECT_EQ(config.tls->keyPem, read(dir_ + "/server.key"));

  const std::vector<std::pair<std::string, std::string>> rows = {
      {"tls_server_config:\n  cert_file: server.crt\n  key_file: other.key\n",
       "tls_server_config.key_file: " + dir_ +
           "/other.key: not the key of the certificate in tls_server_config.cert_file: " + dir_ +
           "/server.crt"},
      {"tls_server_config:\n  cert_file: server.crt\n  key_file: missing.key\n",
       "tls_server_config.key_file: " + dir_ + "/missing.key: No such file or directory"},
      {"tls_server_config:\n  cert_file: server.key\n  key_file: server.key\n",
       "tls_server_config.cert_file: " + dir_ + "/server.key: not a PEM certificate ("},
      {"tls_server_config:\n  cert_file: server.crt\n  key_file: server.crt\n",
       "tls_server_config.key_file: " + dir_ + "/server.crt: not a PEM private key ("},
      {"tls_server_config:\n  cert_file: server.crt\n  key_file: server.key\n"
       "  client_auth_type: RequireAndVerifyClientCert\n  client_ca_file: server.key\n",
       "tls_server_config.client_ca_file: " + dir_ + "/server.key: holds no PEM certificate"},
      {"tls_server_config:\n  cert_file: .\n  key_file: server.key\n",
       "tls_server_config.cert_file: " + dir_ + "/.: Is a directory"},
      {"tls_server_config:\n  cert_file: server.crt\n", "tls_server_config: key_file is required"},
  };
  for (const auto& [text, error] : rows) {
    const std::string path = write("bad.yml", text);
    const std::string got = loadWebConfig(path, &config);
    // One line: the file, then the field.
    EXPECT_EQ(got.rfind(path + ": " + error, 0), 0u) << got;
    EXPECT_EQ(got.find('\n'), std::string::npos) << got;
  }

  EXPECT_EQ(loadWebConfig(dir_ + "/none.yml", &config),
            dir_ + "/none.yml: No such file or directory");
  const std::string big = write("big.yml", "# " + std::string(1 << 20, 'x') + "\n");
  EXPECT_EQ(loadWebConfig(big, &config), big + ": larger than 1 MiB");
  // The configuration from the last good load is left as it was.
  EXPECT_EQ(config.tls->keyPem, read(dir_ + "/server.key"));
}

// crypt_r's bcrypt of `password`, at a cost low enough for a test.
std::string bcrypt(const std::string& password, int cost = 4) {
  char setting[CRYPT_GENSALT_OUTPUT_SIZE];
  EXPECT_NE(crypt_gensalt_rn("$2b$", cost, nullptr, 0, setting, sizeof(setting)), nullptr);
  auto data = std::make_unique<crypt_data>();
  const char* hash = crypt_r(password.c_str(), setting, data.get());
  EXPECT_TRUE(hash != nullptr && hash[0] == '$');
  return hash == nullptr ? "" : hash;
}

TEST(BasicAuthTest, Check) {
  const std::string hash = bcrypt("s3cret");
  WebConfig config;
  ASSERT_EQ(parseWebConfig("basic_auth_users:\n  alice: " + hash + "\n", "", &config), "");
  config.basicAuthUsers["bob"] = "$2b$04$broken";
  config.basicAuthUsers["carol"] = "not a hash";
  const BasicAuth auth(config.basicAuthUsers);
  EXPECT_FALSE(auth.empty());
  EXPECT_TRUE(BasicAuth().empty());
  for (int pass = 0; pass < 2; ++pass) {  // the second from the cache of passed credentials
    EXPECT_TRUE(auth.check("alice", "s3cret"));
    EXPECT_FALSE(auth.check("alice", "s3cret "));
    EXPECT_FALSE(auth.check("alice", "s3cre"));
    EXPECT_FALSE(auth.check("alice", ""));
    EXPECT_FALSE(auth.check("alice", std::string("s3cret\0x", 8)));
    EXPECT_FALSE(auth.check("Alice", "s3cret"));
    EXPECT_FALSE(auth.check("mallory", "s3cret"));
    EXPECT_FALSE(auth.check("bob", "s3cret"));
    EXPECT_FALSE(auth.check("carol", "not a hash"));
    EXPECT_FALSE(auth.check("carol", ""));
  }
  // A copy shares what passed, and still refuses a wrong password.
  const BasicAuth copy = auth;
  EXPECT_TRUE(copy.check("alice", "s3cret"));
  EXPECT_FALSE(copy.check("alice", "s3cret!"));
  // Another user with the same password and hash is another credential.
  EXPECT_FALSE(BasicAuth({{"dave", hash}}).check("alice", "s3cret"));
  EXPECT_TRUE(BasicAuth({{"dave", hash}}).check("dave", "s3cret"));
}

// Scrapers on several threads, each with its own credentials, right and wrong.
TEST(BasicAuthTest, ThreadSafe) {
  const BasicAuth auth({{"a", bcrypt("pa")}, {"b", bcrypt("pb")}});
  std::vector<std::thread> threads;
  std::vector<int> wrong(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&auth, &wrong, t] {
      const std::string user = t % 2 == 0 ? "a" : "b";
      for (int i = 0; i < 20; ++i) {
        wrong[t] += auth.check(user, "p" + user) ? 0 : 1;
        wrong[t] += auth.check(user, "p" + user + "x") ? 1 : 0;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

// An unknown user costs a bcrypt too, or the answer's time would tell which users exist. The
// bound is loose: without the dummy hash an unknown user takes microseconds, not milliseconds.
TEST(BasicAuthTest, UnknownUserCostsABcrypt) {
  const BasicAuth auth({{"alice", bcrypt("s3cret", /*cost=*/8)}});
  const auto fastest = [&](const std::string& user) {
    auto best = std::chrono::steady_clock::duration::max();
    for (int i = 0; i < 3; ++i) {
      const auto start = std::chrono::steady_clock::now();
      EXPECT_FALSE(auth.check(user, "wrong"));
      best = std::min(best, std::chrono::steady_clock::now() - start);
    }
    return best;
  };
  const auto known = fastest("alice"), unknown = fastest("mallory");
  EXPECT_GT(unknown * 4, known) << "known " << known.count() << " unknown " << unknown.count();
}

}  // namespace
}  // namespace zelk::cli
