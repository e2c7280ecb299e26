// A bounded number of places, which limits what peers make the guard hold. Each user other than
// root may have at most one share, and one more share is reserved for root. No user takes all
// places, and a crowd of users does not exclude root. Shared by those who take places and those who
// hold one; callable from any thread.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <mutex>

namespace quorvane::xpc {

/// A taken place. Its last copy gives it back.
using Place = std::shared_ptr<const void>;

class Places : public std::enable_shared_from_this<Places> {
 public:
  Places(int total, int ofOneUser)
      : free(total), freeForUsers(total - ofOneUser), share(ofOneUser) {}

  /// Returns null if there is none for this user.
  [[nodiscard]] Place take(uid_t user) {
    {
      const std::lock_guard lock(mutex);
      const auto found = takenBy.find(user);
      const int taken = found == takenBy.end() ? 0 : found->second;
      if (free == 0 || (user != 0 && (freeForUsers == 0 || taken == share))) return nullptr;
      takenBy[user] = taken + 1;
      add(user, -1);
    }
    return {this, [self = shared_from_this(), user](const void*) { self->giveBack(user); }};
  }

 private:
  void giveBack(uid_t user) {
    const std::lock_guard lock(mutex);
    add(user, 1);
    if (--takenBy[user] == 0) takenBy.erase(user);
  }

  void add(uid_t user, int places) {
    free += places;
    if (user != 0) freeForUsers += places;
  }

  std::mutex mutex;
  int free;
  int freeForUsers;
  const int share;
  std::map<uid_t, int> takenBy;  // users with at least one place
};

}  // namespace quorvane::xpc
