#include "serve/basic_auth.h"

#include <crypt.h>
#include <gnutls/crypto.h>

#include <cstring>
#include <memory>

namespace zelk::cli {
namespace {

// Enough for every user's scraper, several times over; a full cache starts again.
constexpr size_t kMaxPassed = 256;
constexpr int kDefaultCost = 10;  // htpasswd's, and the toolkit's example

// "$2b$12$..." -> 12; the file's reader has checked the shape, a direct caller may not have.
int bcryptCost(const std::string& hash) {
  if (hash.size() < 7 || hash[0] != '$' || hash[1] != '2' || hash[3] != '$') return -1;
  if (hash[4] < '0' || hash[4] > '9' || hash[5] < '0' || hash[5] > '9') return -1;
  return (hash[4] - '0') * 10 + (hash[5] - '0');
}

// Compares every byte of `stored`, whatever the first difference, so that the time taken does
// not tell how much of a guess was right.
bool equalInConstantTime(const char* computed, const std::string& stored) {
  unsigned char difference = 0;
  bool ended = false;
  for (size_t i = 0; i < stored.size(); ++i) {
    const char c = ended ? '\0' : computed[i];
    ended = ended || c == '\0';
    difference |= static_cast<unsigned char>(c ^ stored[i]);
  }
  // The computed text must end where the stored one does.
  difference |= static_cast<unsigned char>(ended ? 1 : computed[stored.size()]);
  return difference == 0 && !stored.empty();
}

// crypt_r's result for `password` under `setting`, or nullptr; the state is 32 KiB, too much
// for the stack of a server's thread.
std::string hashPassword(const std::string& password, const std::string& setting, bool* ok) {
  auto data = std::make_unique<crypt_data>();  // zeroed, as crypt_r asks
  const char* hashed = crypt_r(password.c_str(), setting.c_str(), data.get());
  // libxcrypt fails with a text that starts with '*', never a valid hash.
  *ok = hashed != nullptr && hashed[0] != '*';
  return *ok ? std::string(hashed) : std::string();
}

}  // namespace

BasicAuth::BasicAuth(std::map<std::string, std::string> users) : users_(std::move(users)) {
  int cost = 0;
  for (const auto& [user, hash] : users_) {
    const int userCost = bcryptCost(hash);
    if (userCost > cost && userCost <= 31) cost = userCost;
  }
  if (cost < 4) cost = kDefaultCost;
  // Fixed salt bytes: the dummy's result is never compared with anything.
  static const char kSaltBytes[16] = "zelkcputime-dum";
  char setting[CRYPT_GENSALT_OUTPUT_SIZE];
  if (crypt_gensalt_rn("$2b$", static_cast<unsigned long>(cost), kSaltBytes, sizeof(kSaltBytes),
                       setting, sizeof(setting)) != nullptr) {
    dummySetting_ = setting;
  }
}

bool BasicAuth::check(const std::string& user, const std::string& password) const {
  // crypt_r reads up to a NUL: "secret\0anything" must not pass as "secret".
  if (password.find('\0') != std::string::npos) return false;
  const auto found = users_.find(user);
  if (found == users_.end()) {
    bool ok;
    hashPassword(password, dummySetting_, &ok);
    return false;
  }
  const std::string& stored = found->second;

  // Lengths first, so that no boundary between the parts can move.
  std::string message;
  for (const std::string* part : {&user, &password, &stored}) {
    message += std::to_string(part->size()) + ":" + *part;
  }
  Digest digest;
  const bool digested =
      gnutls_hash_fast(GNUTLS_DIG_SHA256, message.data(), message.size(), digest.data()) == 0;
  // The password's text does not outlive this call.
  explicit_bzero(message.data(), message.size());
  if (digested) {
    com::zelkora::MutexLock lock(passed_->mutex);
    if (passed_->digests.count(digest) != 0) return true;
  }

  bool ok;
  const std::string hashed = hashPassword(password, stored, &ok);
  if (!ok || !equalInConstantTime(hashed.c_str(), stored)) return false;
  if (digested) {
    com::zelkora::MutexLock lock(passed_->mutex);
    if (passed_->digests.size() >= kMaxPassed) passed_->digests.clear();
    passed_->digests.insert(digest);
  }
  return true;
}

}  // namespace zelk::cli
