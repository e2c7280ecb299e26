// A bounded number of places, and of those a smaller number for each user, so that neither all
// peers together nor one user's can make the helper hold ever more, and no user takes them all.
// Shared by those who take places and those who hold one; callable from any thread.
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
  /// `ofOneUser` does not bound root, against whom no bound would help.
  Places(int total, int ofOneUser) : free(total), userBound(ofOneUser) {}

  /// Null when all are taken, or all that this user may have.
  [[nodiscard]] Place take(uid_t user) {
    {
      const std::lock_guard lock(mutex);
      const auto found = takenBy.find(user);
      const int taken = found == takenBy.end() ? 0 : found->second;
      if (free == 0 || (user != 0 && taken == userBound)) return nullptr;
      takenBy[user] = taken + 1;
      --free;
    }
    return {this, [self = shared_from_this(), user](const void*) { self->giveBack(user); }};
  }

 private:
  void giveBack(uid_t user) {
    const std::lock_guard lock(mutex);
    ++free;
    if (--takenBy[user] == 0) takenBy.erase(user);
  }

  std::mutex mutex;
  int free;
  const int userBound;
  std::map<uid_t, int> takenBy;  // users with at least one place
};

}  // namespace quorvane::xpc
