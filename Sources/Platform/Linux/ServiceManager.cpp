#include "Platform/Linux/ServiceManager.h"

#include <cstdlib>

#include "Platform/Linux/Socket.h"

namespace quorvane {

void notifyServiceManager(std::string_view state) {
  // Not below the system root: it names a socket of the real system's, whatever files we open.
  const char* const name = secure_getenv("NOTIFY_SOCKET");
  if (name != nullptr) sendDatagram(name, state);
}

}  // namespace quorvane
