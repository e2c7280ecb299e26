// The process at the other end of a connection, held so that its number alone is never trusted: a
// number can be another's by now, and whoever makes a user namespace is root in it. Used from the
// connection's thread.
#pragma once

#include <sys/types.h>

#include "Platform/Linux/Channel/Socket.h"

namespace quorvane::xpc {

class Peer {
 public:
  /// The process that connected the socket (SO_PEERCRED, unix(7)).
  explicit Peer(int socket);

  /// Its executable, open for reading; nothing when that cannot be had, or when the process lives
  /// in a user or pid namespace other than ours: there it may choose what /proc shows for it
  /// (PR_SET_MM_EXE_FILE, prctl(2)), or be spoken for by the namespace's root (SCM_CREDENTIALS,
  /// unix(7)). What a user can do to a process of their own in ours, see
  /// Documentation/code-identity.md, is not detected.
  [[nodiscard]] Descriptor openExecutable() const;

  /// Whether a message under this process number, received already, was sent by this process: it is
  /// alive, so nobody else has had its number.
  [[nodiscard]] bool isSender(pid_t number) const;

 private:
  pid_t pid = 0;
  Descriptor process;  // a pidfd
};

}  // namespace quorvane::xpc
