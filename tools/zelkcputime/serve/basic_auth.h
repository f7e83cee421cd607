// Basic authentication against the web configuration's bcrypt hashes.
#pragma once

#include <map>
#include <string>

namespace zelk::cli {

// Checks a user and password with libcrypt's crypt_r, which knows $2a$, $2b$ and $2y$. bcrypt
// costs tens of milliseconds by design, and a scraper sends the same credentials every few
// seconds, so credentials that passed are remembered, as a digest and never as text, for the
// life of this object (a reload makes a new one). Thread-safe.
class BasicAuth {
 public:
  BasicAuth() = default;
  explicit BasicAuth(std::map<std::string, std::string> users);

  bool empty() const { return users_.empty(); }
  // False for an unknown user, a wrong password, or a hash crypt_r cannot read.
  bool check(const std::string& user, const std::string& password) const;

 private:
  std::map<std::string, std::string> users_;
  // The cache of passed credentials lives in the implementation.
};

}  // namespace zelk::cli
