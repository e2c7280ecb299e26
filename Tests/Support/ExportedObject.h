// A fake helper for tests of the layers between the helper and its clients: the exported object and
// the delegate. It replies on the connection's thread. A write of "held" waits for answerHeld().
#pragma once

#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "Platform/XPC.h"

namespace quorvane {

/// Returns "true" or "false", then a space and the message if any; "no reply" for no outcome.
inline std::string describe(const std::optional<Outcome>& outcome) {
  if (!outcome) return "no reply";
  const std::string success = outcome->success ? "true" : "false";
  return outcome->message ? success + " " + *outcome->message : success;
}

/// The step that the delegate omits when it accepts a connection.
enum class Missing { nothing, requirement, resume, consent };

struct ExportedObject final : FanControlXPC,
                              xpc::ListenerDelegate,
                              std::enable_shared_from_this<ExportedObject> {
  bool shouldAcceptNewConnection(xpc::Connection& connection) override {
    connection.setExportedInterface(xpc::Interface::fanControl);
    connection.setExportedObject(shared_from_this());
    if (missing != Missing::requirement) connection.setCodeSigningRequirement(requirement);
    if (missing != Missing::resume) connection.resume();
    return missing != Missing::consent;
  }

  void writeFanKey(std::string key, std::int64_t value, bool isFloat, OutcomeReply reply) override {
    const std::lock_guard lock(mutex);
    ++writes;
    if (key != "held") return reply(isFloat && value == INT64_MIN, std::move(key));
    held.push_back(std::move(reply));
  }
  void restoreAuto(OutcomeReply reply) override { reply(true, std::nullopt); }
  void status(StatusReply reply) override { reply({{"b", "\u20AC"}, {"a", ""}}); }
  void ping(PingReply reply) override { reply("ok"); }

  void answerHeld() {
    const std::lock_guard lock(mutex);
    for (const OutcomeReply& reply : std::exchange(held, {})) reply(true, std::nullopt);
  }

  std::string requirement;  // on the clients; set before the first one connects
  std::atomic<Missing> missing = Missing::nothing;
  std::atomic<int> writes = 0;

 private:
  std::mutex mutex;
  std::vector<OutcomeReply> held;
};

}  // namespace quorvane
