#include "Platform/Linux/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "Platform/File.h"

namespace quorvane {

void notifyServiceManager(std::string_view state) {
  // Not below the system root: it names a socket of the real system's, whatever files we open.
  const char* const variable = secure_getenv("NOTIFY_SOCKET");
  const std::string_view name = variable != nullptr ? variable : "";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (name.empty() || name.size() >= sizeof address.sun_path) return;
  std::memcpy(address.sun_path, name.data(), name.size());
  // An abstract name: '@' stands for a NUL, and the length bounds it.
  if (name.front() == '@') address.sun_path[0] = '\0';
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());

  const Descriptor manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sendto(manager.get(), state.data(), state.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&address), length);
}

}  // namespace quorvane
