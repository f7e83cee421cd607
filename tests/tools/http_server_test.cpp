// The exporter's HTTP server in this process, on a port the system picks: routes, methods,
// malformed, large and slow requests, and the listen address.
#include "serve/http_server.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <thread>

#include "serve_bed.h"

namespace zelk::cli {
namespace {

using std::chrono::milliseconds;
using testbed::HttpReply;
using testbed::httpRequest;
using testbed::rawExchange;

class HttpServerTest : public ::testing::Test {
 protected:
  static constexpr HttpLimits kLimits = [] {
    HttpLimits limits;
    limits.headerTimeout = milliseconds(1000);
    limits.idleTimeout = std::chrono::seconds(1);
    limits.maxBodyBytes = 2048;
    return limits;
  }();

  void SetUp() override {
    ASSERT_EQ(
        server_.start(
            {"127.0.0.1", 0},
            [](const std::string& accept) {
              return HttpResponse{200, "text/plain; version=0.0.4", "accept=" + accept + "\n"};
            },
            kLimits),
        "");
    port_ = server_.port();
    ASSERT_NE(port_, 0);
  }

  int statusOf(const std::string& request) {
    const std::string reply = rawExchange(port_, request, milliseconds(3000));
    std::smatch match;
    static const std::regex status("^HTTP/1\\.[01] ([0-9]{3}) ");
    return std::regex_search(reply, match, status) ? std::stoi(match[1]) : -1;
  }

  HttpServer server_;
  uint16_t port_ = 0;
};

TEST_F(HttpServerTest, MetricsForGetAndHeadOnly) {
  HttpReply reply = httpRequest(port_, "GET", "/metrics", "application/openmetrics-text");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.contentType, "text/plain; version=0.0.4");
  EXPECT_EQ(reply.body, "accept=application/openmetrics-text\n");
  EXPECT_EQ(reply.contentLength, static_cast<int64_t>(reply.body.size()));
  EXPECT_EQ(httpRequest(port_, "GET", "/metrics?x=1").status, 200) << "a query string is ignored";

  const std::string head = rawExchange(
      port_, "HEAD /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", milliseconds(3000));
  EXPECT_EQ(head.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << head;
  EXPECT_NE(head.find("Content-Length: 8\r\n"), std::string::npos) << head;
  EXPECT_EQ(head.substr(head.find("\r\n\r\n") + 4), "") << "HEAD has no body";

  for (const char* method : {"POST", "PUT", "DELETE", "PATCH", "OPTIONS"}) {
    const std::string reply = rawExchange(
        port_,
        std::string(method) + " /metrics HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\nabc",
        milliseconds(3000));
    EXPECT_EQ(reply.rfind("HTTP/1.1 405 ", 0), 0u) << method << ": " << reply;
    EXPECT_NE(reply.find("Allow: GET, HEAD\r\n"), std::string::npos) << method << ": " << reply;
  }
}

TEST_F(HttpServerTest, UnknownPathsAre404AndNoFileIsServed) {
  for (const char* path : {"/nope", "/metrics/", "/metrics/x", "/metricsx", "/etc/passwd",
                           "/../../etc/passwd", "/CMakeCache.txt", "/tool_exposition_test"}) {
    EXPECT_EQ(httpRequest(port_, "GET", path).status, 404) << path;
  }
  HttpReply root = httpRequest(port_, "GET", "/");
  EXPECT_EQ(root.status, 200);
  EXPECT_NE(root.body.find("/metrics"), std::string::npos);
}

// MHD closes a request line it cannot read without a word, and serve answers it itself, only once
// the kernel says that nothing was sent yet (TCP_INFO). qemu-user passes every TCP option as an
// int, so there the check fails safe: the connection is closed unanswered, still refused.
#ifdef ZELK_EMULATED
constexpr int kUnreadAnswer = -1;
#else
constexpr int kUnreadAnswer = 400;
#endif

TEST_F(HttpServerTest, MalformedAndOversizedRequestsAreRefused) {
  // An unknown method is a method not allowed, as any other.
  EXPECT_EQ(statusOf("FOO /metrics HTTP/1.1\r\nHost: x\r\n\r\n"), 405);
  EXPECT_EQ(statusOf("garbage\r\n\r\n"), kUnreadAnswer);
  EXPECT_EQ(statusOf("\x01\x02\xff\xfe\r\n\r\n"), kUnreadAnswer);
  // MHD may read a line that starts with NUL as a blank line before the request and wait for
  // one, which the header deadline answers (408); or refuse it at once, by how the bytes arrive.
  const int nulFirst = statusOf(std::string("\x00\x01\x02\xff\r\n\r\n", 8));
  EXPECT_TRUE(nulFirst == kUnreadAnswer || nulFirst == 408 || nulFirst == 400) << nulFirst;
  EXPECT_EQ(statusOf("GET\r\n\r\n"), kUnreadAnswer);
  EXPECT_EQ(statusOf("GET /metrics HTTP/9.9\r\n\r\n"), 505);
  EXPECT_EQ(statusOf("GET /" + std::string(100000, 'a') + " HTTP/1.1\r\n\r\n"), 414);
  std::string flood = "GET /metrics HTTP/1.1\r\nHost: x\r\n";
  for (int i = 0; i < 100; ++i)
    flood += "X-Pad-" + std::to_string(i) + ": " + std::string(500, 'p') + "\r\n";
  EXPECT_EQ(statusOf(flood + "\r\n"), 431);
  // Still serving.
  EXPECT_EQ(httpRequest(port_, "GET", "/metrics").status, 200);
}

TEST_F(HttpServerTest, BodiesAreReadUpToTheLimitAndRefusedBeyond) {
  const std::string get = "GET /metrics HTTP/1.1\r\nHost: x\r\n";
  // Within the limit: read, dropped, and the connection kept for the next request.
  const std::string kept =
      rawExchange(port_, get + "Content-Length: 5\r\n\r\nhello" + get + "Connection: close\r\n\r\n",
                  milliseconds(3000));
  EXPECT_EQ(kept.rfind("HTTP/1.1 200 OK", 0), 0u) << kept;
  EXPECT_NE(kept.find("HTTP/1.1 200 OK", 1), std::string::npos) << "second request: " << kept;
  // Declared beyond it: refused before a byte of the body is read.
  EXPECT_EQ(
      statusOf(get + "Content-Length: " + std::to_string(kLimits.maxBodyBytes + 1) + "\r\n\r\n"),
      413);
  // In chunks beyond it: the connection ends, before the client has sent it all.
  std::string chunked = get + "Transfer-Encoding: chunked\r\n\r\n";
  for (int i = 0; i < 4; ++i) chunked += "400\r\n" + std::string(1024, 'b') + "\r\n";
  milliseconds closedAfter{0};
  const std::string cut = rawExchange(port_, chunked, milliseconds(3000), &closedAfter);
  EXPECT_EQ(cut.find("200 OK"), std::string::npos) << cut;
  EXPECT_LT(closedAfter, milliseconds(900)) << "the connection waited for the rest";
  EXPECT_EQ(httpRequest(port_, "GET", "/metrics").status, 200);
}

TEST_F(HttpServerTest, SlowClientsAreCutOffAndHoldNoOneElseUp) {
  std::vector<std::thread> slow;
  std::vector<milliseconds> closed(4);
  // Two that stop mid-request, two that trickle a byte every 300 ms: each within its own
  // timeout, but the request as a whole takes too long.
  for (size_t i = 0; i < closed.size(); ++i) {
    slow.emplace_back([&, i] {
      if (i < 2) {
        rawExchange(port_, "GET /met", milliseconds(5000), &closed[i]);
        return;
      }
      const auto start = std::chrono::steady_clock::now();
      std::string request = "GET /metrics HTTP/1.1\r\nHost: x\r\nX-Slow: ";
      request += std::string(40, 's');
      testbed::rawTrickle(port_, request, milliseconds(300), milliseconds(5000));
      closed[i] =
          std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
    });
  }
  std::this_thread::sleep_for(milliseconds(100));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(httpRequest(port_, "GET", "/metrics").status, 200);
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(500));
  for (std::thread& t : slow) t.join();
  for (size_t i = 0; i < closed.size(); ++i) {
    EXPECT_GE(closed[i], milliseconds(900)) << i;
    EXPECT_LT(closed[i], milliseconds(2500)) << i << ": the server kept a slow request";
  }
}

TEST(HttpServer, AnAddressInUseSaysSo) {
  HttpServer first, second;
  ASSERT_EQ(first.start({"127.0.0.1", 0}, nullptr), "");
  const ListenAddress taken{"127.0.0.1", first.port()};
  const std::string error = second.start(taken, nullptr);
  EXPECT_NE(error.find("cannot listen on " + taken.text() + ": "), std::string::npos) << error;
  EXPECT_NE(error.find("Address already in use"), std::string::npos) << error;
}

TEST(ParseListen, Ipv4AndAPortFrom1To65535) {
  const std::pair<const char*, std::string> cases[] = {
      {"127.0.0.1:10410", ""},
      {"0.0.0.0:1", ""},
      {"10.1.2.3:65535", ""},
      {"127.0.0.1:0", "--listen: port out of range (1 to 65535): 0"},
      {"127.0.0.1:65536", "--listen: port out of range (1 to 65535): 65536"},
      {"127.0.0.1:-1", "--listen: port out of range (1 to 65535): -1"},
      {"127.0.0.1:", "--listen: port out of range (1 to 65535): "},
      {"127.0.0.1:99999999999999999999",
       "--listen: port out of range (1 to 65535): "
       "99999999999999999999"},
      {"localhost:80", "--listen takes an IPv4 address, such as 127.0.0.1 (not \"localhost\")"},
      {"[::1]:80", "--listen takes an IPv4 address, such as 127.0.0.1 (not \"[::1]\")"},
      {"999.1.1.1:80", "--listen takes an IPv4 address, such as 127.0.0.1 (not \"999.1.1.1\")"},
      {"10410", "--listen takes ADDR:PORT, such as 127.0.0.1:10410"},
  };
  for (const auto& [text, error] : cases) {
    ListenAddress address;
    EXPECT_EQ(parseListen(text, &address), error) << text;
    if (error.empty()) {
      EXPECT_EQ(address.text(), text);
    }
  }
}

}  // namespace
}  // namespace zelk::cli
