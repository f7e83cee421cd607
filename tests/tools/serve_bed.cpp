#include "serve_bed.h"

#include <android-base/file.h>
#include <arpa/inet.h>
#include <crypt.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <regex>
#include <thread>

namespace zelk::testbed {
namespace {

using Clock = std::chrono::steady_clock;

std::string urlEncoded(const std::string& text) {
  std::string out;
  for (const unsigned char c : text) {
    if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      char escaped[4];
      snprintf(escaped, sizeof(escaped), "%%%02X", c);
      out += escaped;
    }
  }
  return out;
}

}  // namespace

std::string rawTrickle(uint16_t port, const std::string& bytes, milliseconds interval,
                       milliseconds timeout) {
  const int fd = connectLoopback(port);
  std::string reply;
  const auto deadline = Clock::now() + timeout;
  for (size_t i = 0; fd >= 0 && Clock::now() < deadline; ++i) {
    if (i < bytes.size() && send(fd, &bytes[i], 1, MSG_NOSIGNAL) != 1) break;
    pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(interval.count())) > 0) {
      char buffer[4096];
      const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
      if (n > 0) reply.append(buffer, static_cast<size_t>(n));
      break;
    }
  }
  if (fd >= 0) close(fd);
  return reply;
}

std::string rawExchange(uint16_t port, const std::string& bytes, milliseconds timeout,
                        milliseconds* closedAfter) {
  const int fd = connectLoopback(port);
  std::string reply;
  const auto start = Clock::now();
  if (fd >= 0) {
    // A server that closes early resets the rest: what it answered first still counts.
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    const auto deadline = start + timeout;
    // Expositions run to megabytes: few reads, as a real client makes.
    std::vector<char> buffer(64 * 1024);
    for (;;) {
      pollfd p = {fd, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(timeLeft(deadline).count())) <= 0) break;
      const ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
      if (n <= 0) break;
      reply.append(buffer.data(), static_cast<size_t>(n));
    }
  }
  if (closedAfter != nullptr) {
    *closedAfter = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
  }
  if (fd >= 0) close(fd);
  return reply;
}

int connectLoopback(uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

std::string bcrypt(const std::string& password) {
  char setting[CRYPT_GENSALT_OUTPUT_SIZE];
  if (crypt_gensalt_rn("$2b$", 4, nullptr, 0, setting, sizeof(setting)) == nullptr) return "";
  auto data = std::make_unique<crypt_data>();
  const char* hash = crypt_r(password.c_str(), setting, data.get());
  return hash != nullptr ? hash : "";
}

HttpReply parseReply(const std::string& raw) {
  HttpReply reply;
  const size_t end = raw.find("\r\n\r\n");
  if (end == std::string::npos) return reply;
  // By hand, not with std::regex: scrapers parse answers on many threads at once, and compiling
  // a regex fills libstdc++'s shared ctype cache, a race that ThreadSanitizer reports.
  const std::string head = raw.substr(0, end + 2);
  const auto digit = [&](size_t i) { return head[i] >= '0' && head[i] <= '9'; };
  // "HTTP/1.0 " or "HTTP/1.1 ", three digits, a space.
  if (head.size() < 13 || head.compare(0, 7, "HTTP/1.") != 0 ||
      (head[7] != '0' && head[7] != '1') || head[8] != ' ' || !digit(9) || !digit(10) ||
      !digit(11) || head[12] != ' ') {
    return reply;
  }
  reply.status = std::stoi(head.substr(9, 3));
  bool chunked = false;
  // Each header line: after a CRLF, up to the next one (the head ends with one).
  for (size_t at = head.find("\r\n"); at + 2 < head.size();) {
    const size_t next = head.find("\r\n", at + 2);
    const std::string line = head.substr(at + 2, next - at - 2);
    at = next;
    const size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) continue;
    const std::string name = line.substr(0, colon);
    const size_t from = line.find_first_not_of(" \t", colon + 1);
    const std::string value = from == std::string::npos ? "" : line.substr(from);
    if (strcasecmp(name.c_str(), "Content-Type") == 0) reply.contentType = value;
    if (strcasecmp(name.c_str(), "Content-Length") == 0) reply.contentLength = std::stoll(value);
    if (strcasecmp(name.c_str(), "Transfer-Encoding") == 0) chunked = true;
  }
  reply.body = raw.substr(end + 4);
  if (chunked) {
    // Prometheus's API answers in chunks: sizes in hexadecimal, each chunk followed by CRLF.
    std::string body;
    for (size_t at = 0;;) {
      const size_t line = reply.body.find("\r\n", at);
      if (line == std::string::npos) break;
      const size_t size = std::strtoul(reply.body.substr(at, line - at).c_str(), nullptr, 16);
      if (size == 0 || line + 2 + size > reply.body.size()) break;
      body += reply.body.substr(line + 2, size);
      at = line + 2 + size + 2;
    }
    reply.body = body;
  }
  return reply;
}

HttpReply httpRequest(uint16_t port, const std::string& method, const std::string& path,
                      const std::string& accept) {
  const std::string acceptLine = accept.empty() ? "" : "Accept: " + accept + "\r\n";
  return parseReply(rawExchange(port,
                                method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
                                    acceptLine + "Connection: close\r\n\r\n",
                                milliseconds(30000)));
}

std::string installedProgram(const std::string& name) {
  const std::string path = "/usr/bin/" + name;
  return access(path.c_str(), X_OK) == 0 ? path : "";
}

std::string Prometheus::start(const std::string& config, uint16_t port) {
  const std::string program = installedProgram("prometheus");
  if (program.empty()) return "Debian's prometheus package is not installed";
  char dir[] = "/tmp/zelk-prometheus-XXXXXX";
  if (mkdtemp(dir) == nullptr) return std::string("mkdtemp: ") + strerror(errno);
  dir_ = dir;
  if (!android::base::WriteStringToFile(config, dir_ + "/prometheus.yml")) {
    return "cannot write the configuration";
  }
  port_ = port;
  server_.emplace(program,
                  std::vector<std::string>{"--config.file=" + dir_ + "/prometheus.yml",
                                           "--storage.tsdb.path=" + dir_ + "/data",
                                           "--web.listen-address=127.0.0.1:" + std::to_string(port),
                                           "--log.level=warn"});
  const auto deadline = Clock::now() + milliseconds(30000);
  while (Clock::now() < deadline) {
    if (httpRequest(port, "GET", "/-/ready").status == 200) return "";
    std::this_thread::sleep_for(milliseconds(100));
  }
  return "prometheus did not become ready: " + server_->output();
}

Prometheus::~Prometheus() {
  server_.reset();
  if (!dir_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
}

std::optional<double> Prometheus::query(const std::string& expression) const {
  const HttpReply reply =
      httpRequest(port_, "GET", "/api/v1/query?query=" + urlEncoded(expression));
  static const std::regex value(R"re("value":\[[0-9.e+]+,"([^"]+)"\])re");
  std::smatch match;
  if (reply.status != 200 || !std::regex_search(reply.body, match, value)) return std::nullopt;
  return std::strtod(match[1].str().c_str(), nullptr);
}

std::optional<uint64_t> Prometheus::headSeries(std::string* status) const {
  const HttpReply reply = httpRequest(port_, "GET", "/api/v1/status/tsdb");
  if (status != nullptr) *status = reply.body;
  static const std::regex count(R"re("headStats":\{"numSeries":([0-9]+))re");
  std::smatch match;
  if (reply.status != 200 || !std::regex_search(reply.body, match, count)) return std::nullopt;
  return std::stoull(match[1]);
}

uint64_t residentKiB(pid_t pid) {
  std::string status;
  android::base::ReadFileToString("/proc/" + std::to_string(pid) + "/status", &status);
  static const std::regex rss(R"(VmRSS:\s+([0-9]+) kB)");
  std::smatch match;
  return std::regex_search(status, match, rss) ? std::stoull(match[1]) : 0;
}

size_t descriptorCount(pid_t pid) {
  size_t count = 0;
  std::error_code error;
  for (auto it = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error);
       !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    ++count;
  }
  return count;
}

}  // namespace zelk::testbed
