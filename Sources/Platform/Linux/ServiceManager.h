// Notifies the service manager that started this process: systemd, or any other listener at
// NOTIFY_SOCKET, see sd_notify(3). Only this module reads that variable; callable from any thread.
#pragma once

#include <string_view>

namespace quorvane {

/// Sends one state, "READY=1" or "STOPPING=1". Never blocks and reports no failure: it is a no-op
/// without NOTIFY_SOCKET, and loses a message for which there is no room. After a lost READY=1 the
/// manager restarts the process, because it is not ready in time.
void notifyServiceManager(std::string_view state);

}  // namespace quorvane
