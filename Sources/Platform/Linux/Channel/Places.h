// A bounded number of places, so that peers cannot make the helper hold ever more. Each user other
// than root may have a share of them, and one share is root's alone: so no user takes them all, and
// root comes in even past a crowd of users. Shared by those who take places and those who hold one;
// callable from any thread.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <mutex>

namespace quorvane::xpc {

/// A place taken. It is given back, once, when its last copy goes.
using Place = std::shared_ptr<const void>;

class Places : public std::enable_shared_from_this<Places> {
 public:
  Places(int total, int ofOneUser)
      : free(total), freeForUsers(total - ofOneUser), share(ofOneUser) {}

  /// Null when there is none for this user.
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
