// What the layer tells the service manager that started this process: systemd, or whoever else
// listens at NOTIFY_SOCKET, see sd_notify(3). The one place that knows of that variable; callable
// from any thread.
#pragma once

#include <string_view>

namespace quorvane {

/// Sends one state, "READY=1" or "STOPPING=1". Never waits and has no result: does nothing where
/// nobody asked to be told, and a message for which there is no room is lost. A lost READY=1 is
/// mended by the manager, which starts anew what is not ready in time.
void notifyServiceManager(std::string_view state);

}  // namespace quorvane
