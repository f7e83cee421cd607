// Basic authentication against the web configuration's bcrypt hashes.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "core/mutex.h"

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
  using Digest = std::array<uint8_t, 32>;  // SHA-256

  std::map<std::string, std::string> users_;
  // A bcrypt setting as costly as the dearest user's, hashed for an unknown user so that the
  // time of an answer does not tell which users exist.
  std::string dummySetting_;
  // Digests of user, password and hash that passed; bounded, cleared when full. Shared by
  // copies, which is sound because the digest holds the hash it passed against.
  struct Passed {
    com::zelkora::Mutex mutex;
    std::set<Digest> digests GUARDED_BY(mutex);
  };
  std::shared_ptr<Passed> passed_ = std::make_shared<Passed>();
};

}  // namespace zelk::cli
