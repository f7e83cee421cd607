// The exporter's HTTP server with a web configuration: TLS versions, client certificates and
// basic authentication, against curl, with certificates that openssl makes here.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "serve/http_server.h"
#include "serve_bed.h"

namespace zelk::cli {
namespace {

std::string readFile(const std::string& path) {
  std::string text;
  if (FILE* file = fopen(path.c_str(), "re")) {
    std::array<char, 4096> buffer;
    for (size_t n; (n = fread(buffer.data(), 1, buffer.size(), file)) > 0;)
      text.append(buffer.data(), n);
    fclose(file);
  }
  return text;
}

struct CurlResult {
  int exit = -1;
  int status = 0;      // 0: no HTTP answer
  std::string output;  // headers (-D -) and body, then curl's error
};

// A CA, a server certificate for 127.0.0.1 and a client certificate that it signed, and a client
// certificate that signed itself; made once for every test here.
class WebConfigServer : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char dir[] = "/tmp/zelk-tls-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    const std::string ec = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes ";
    const std::string commands[] = {
        "openssl req -x509 " + ec + "-days 1 -subj /CN=zelk-test-ca -keyout ca.key -out ca.pem",
        "printf 'subjectAltName=IP:127.0.0.1\\n' > server.ext",
        "printf 'extendedKeyUsage=clientAuth\\n' > client.ext",
        "openssl req " + ec + "-subj /CN=127.0.0.1 -keyout server.key -out server.csr",
        "openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 1 "
        "-extfile server.ext -out server.pem",
        "openssl req " + ec + "-subj /CN=prometheus -keyout client.key -out client.csr",
        "openssl x509 -req -in client.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 1 "
        "-extfile client.ext -out client.pem",
        "openssl req -x509 " + ec + "-days 1 -subj /CN=prometheus -keyout rogue.key -out rogue.pem",
    };
    for (const std::string& command : commands) {
      const std::string line = "cd " + dir_ + " && " + command + " >/dev/null 2>&1";
      ASSERT_EQ(system(line.c_str()), 0) << command;
    }
  }
  static void TearDownTestSuite() {
    if (!dir_.empty()) {
      EXPECT_EQ(system(("rm -rf " + dir_).c_str()), 0);
    }
  }

  static TlsConfig tls(ClientAuth clientAuth = ClientAuth::kNone) {
    TlsConfig config;
    config.certPem = readFile(dir_ + "/server.pem");
    config.keyPem = readFile(dir_ + "/server.key");
    config.clientAuth = clientAuth;
    if (clientAuth != ClientAuth::kNone) config.clientCaPem = readFile(dir_ + "/ca.pem");
    return config;
  }

  void start(const WebConfig& web) {
    ASSERT_EQ(server_.start(
                  {"127.0.0.1", 0},
                  [](const std::string&) {
                    return HttpResponse{200, "text/plain", "up 1\n"};
                  },
                  HttpLimits{}, web),
              "");
  }

  // curl with `args` against this server's /metrics; `scheme` https or http.
  CurlResult curl(const std::string& args, const std::string& scheme = "https") {
    const std::string line = "cd " + dir_ + " && curl -sS -D - --max-time 5 " + args + " " +
                             scheme + "://127.0.0.1:" + std::to_string(server_.port()) +
                             "/metrics 2>&1; echo \" exit=$?\"";
    CurlResult result;
    if (FILE* pipe = popen(line.c_str(), "re")) {
      std::array<char, 4096> buffer;
      for (size_t n; (n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
        result.output.append(buffer.data(), n);
      }
      pclose(pipe);
    }
    const size_t exitAt = result.output.rfind(" exit=");
    if (exitAt != std::string::npos) result.exit = atoi(result.output.c_str() + exitAt + 6);
    result.status = testbed::parseReply(result.output).status;
    if (result.status < 0) result.status = 0;
    return result;
  }

  static std::string dir_;
  HttpServer server_;
};

std::string WebConfigServer::dir_;

TEST_F(WebConfigServer, Tls12And13OnlyAndNoPlainHttp) {
  WebConfig web;
  web.tls = tls();
  start(web);
  CurlResult run = curl("--cacert ca.pem --tlsv1.2 --tls-max 1.2");
  EXPECT_EQ(run.status, 200) << run.output;
  EXPECT_NE(run.output.find("\r\n\r\nup 1\n"), std::string::npos) << run.output;
  run = curl("--cacert ca.pem --tlsv1.3");
  EXPECT_EQ(run.status, 200) << run.output;
  // The client is let offer TLS 1.1 (OpenSSL 3 forbids it at its default level; with these flags
  // curl gets TLS 1.1 from `openssl s_server -tls1_1`): the server refuses the handshake.
  run = curl("--cacert ca.pem --tlsv1.1 --tls-max 1.1 --ciphers DEFAULT@SECLEVEL=0");
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(run.exit, 35) << "a TLS handshake failure: " << run.output;
  run = curl("", "http");
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.exit, 0) << run.output;
  // Still serving.
  EXPECT_EQ(curl("--cacert ca.pem").status, 200);
}

TEST_F(WebConfigServer, MinAndMaxVersionAreHonoured) {
  WebConfig web;
  web.tls = tls();
  web.tls->minVersion = TlsVersion::kTls13;
  start(web);
  EXPECT_EQ(curl("--cacert ca.pem --tlsv1.3").status, 200);
  const CurlResult run = curl("--cacert ca.pem --tlsv1.2 --tls-max 1.2");
  EXPECT_EQ(run.status, 0) << run.output;
}

TEST_F(WebConfigServer, RequireAndVerifyClientCert) {
  WebConfig web;
  web.tls = tls(ClientAuth::kRequireAndVerify);
  start(web);
  // MHD 0.9.75 can only ask for a certificate in the handshake, so the refusal is an answer.
  CurlResult run = curl("--cacert ca.pem");
  EXPECT_EQ(run.status, 403) << run.output;
  EXPECT_NE(run.output.find("a client certificate is required"), std::string::npos);
  run = curl("--cacert ca.pem --cert rogue.pem --key rogue.key");
  EXPECT_EQ(run.status, 403) << "a certificate the client CA did not sign: " << run.output;
  run = curl("--cacert ca.pem --cert client.pem --key client.key");
  EXPECT_EQ(run.status, 200) << run.output;
}

TEST_F(WebConfigServer, BasicAuthentication) {
  WebConfig web;
  web.tls = tls();
  web.basicAuthUsers = {{"prometheus", testbed::bcrypt("s3cret")}};
  ASSERT_EQ(web.basicAuthUsers["prometheus"].rfind("$2b$04$", 0), 0u);
  start(web);
  for (const char* credentials :
       {"", "-u prometheus:wrong", "-u prometheus:", "-u nobody:s3cret", "-u prometheus:s3cret2"}) {
    const CurlResult run = curl(std::string("--cacert ca.pem ") + credentials);
    EXPECT_EQ(run.status, 401) << credentials << ": " << run.output;
    EXPECT_NE(run.output.find("\r\nWWW-Authenticate: Basic realm=\"zelkcputime\"\r\n"),
              std::string::npos)
        << run.output;
    EXPECT_EQ(run.output.find("prometheus"), std::string::npos) << "the answer names no user";
    EXPECT_EQ(run.output.find("up 1"), std::string::npos);
  }
  const CurlResult run = curl("--cacert ca.pem -u prometheus:s3cret");
  EXPECT_EQ(run.status, 200) << run.output;
  EXPECT_NE(run.output.find("up 1"), std::string::npos);
}

TEST_F(WebConfigServer, ReloadSwapsUsersAndTlsWithoutLosingAScrape) {
  WebConfig web;
  web.tls = tls();
  web.basicAuthUsers = {{"prometheus", testbed::bcrypt("p1")}, {"alice", testbed::bcrypt("a1")}};
  const size_t descriptors = testbed::descriptorCount(getpid());
  start(web);
  // A scraper whose user stays, throughout both reloads.
  std::atomic<bool> stopping{false};
  std::vector<CurlResult> scrapes;
  std::thread scraper([&] {
    while (!stopping) scrapes.push_back(curl("--cacert ca.pem -u prometheus:p1"));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(curl("--cacert ca.pem -u alice:a1").status, 200);

  // Users alone.
  web.basicAuthUsers["alice"] = testbed::bcrypt("a2");
  ASSERT_EQ(server_.reload(web), "");
  EXPECT_EQ(curl("--cacert ca.pem -u alice:a1").status, 401) << "the old password";
  EXPECT_EQ(curl("--cacert ca.pem -u alice:a2").status, 200) << "the new password";
  EXPECT_EQ(curl("--cacert ca.pem --tlsv1.2 --tls-max 1.2 -u alice:a2").status, 200);

  // TLS: a new daemon on the same socket.
  web.tls->minVersion = TlsVersion::kTls13;
  ASSERT_EQ(server_.reload(web), "");
  EXPECT_EQ(curl("--cacert ca.pem --tlsv1.2 --tls-max 1.2 -u alice:a2").status, 0);
  EXPECT_EQ(curl("--cacert ca.pem --tlsv1.3 -u alice:a2").status, 200);
  EXPECT_EQ(curl("--cacert ca.pem --tlsv1.3 -u alice:a1").status, 401);

  // A configuration the server cannot use: the one in force stays.
  WebConfig broken = web;
  broken.tls->keyPem = "not a key";
  EXPECT_NE(server_.reload(broken), "");
  EXPECT_EQ(curl("--cacert ca.pem -u alice:a2").status, 200);

  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  stopping = true;
  scraper.join();
  EXPECT_GE(scrapes.size(), 10u);
  for (const CurlResult& scrape : scrapes) EXPECT_EQ(scrape.status, 200) << scrape.output;
  server_.stop();
  EXPECT_EQ(testbed::descriptorCount(getpid()), descriptors) << "the daemons' sockets are closed";
}

}  // namespace
}  // namespace zelk::cli
