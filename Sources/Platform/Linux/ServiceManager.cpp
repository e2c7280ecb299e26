#include "Platform/Linux/ServiceManager.h"

#include <cstdlib>

#include "Platform/Linux/Socket.h"

namespace quorvane {

void notifyServiceManager(std::string_view state) {
  // Not below the system root: the name is that of the real system's socket.
  const char* const name = secure_getenv("NOTIFY_SOCKET");
  if (name != nullptr) sendDatagram(name, state);
}

}  // namespace quorvane
