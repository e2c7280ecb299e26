#include "FanControlClient/FanControlC.h"

#include <optional>
#include <string>

#include "FanControlClient/FanControlClient.h"
#include "FanControlClient/LeaseKeeper.h"

using quorvane::FanEvent;
using quorvane::Outcome;
using quorvane::StatusReport;

static_assert(static_cast<int>(FanEvent::forced) == QUORVANE_FAN_FORCED &&
              static_cast<int>(FanEvent::refused) == QUORVANE_FAN_REFUSED);

struct quorvane_client {
  quorvane::FanControlClient client;
  std::string text;
  StatusReport report;

  template <class Reply>
  quorvane_result settle(const std::optional<Reply>& reply) {
    if (!reply) {
      text = client.error();
      return QUORVANE_UNREACHABLE;
    }
    return take(*reply);
  }

 private:
  quorvane_result take(const Outcome& outcome) {
    text = outcome.message.value_or("");
    return outcome.success ? QUORVANE_DONE : QUORVANE_REFUSED;
  }
  quorvane_result take(const std::string& answer) {
    text = answer;
    return QUORVANE_DONE;
  }
  quorvane_result take(const StatusReport& status) {
    report = status;
    return QUORVANE_DONE;
  }
};

struct quorvane_keeper {
  quorvane::LeaseKeeper keeper;
};

namespace {

template <class Call>
quorvane_result guarded(const Call& call) noexcept try {
  return call();
} catch (...) {
  return QUORVANE_FAILED;
}

template <class Call>
quorvane_result settled(quorvane_client* client, const Call& call) noexcept {
  client->text.clear();
  return guarded([&] { return client->settle(call(client->client)); });
}

}  // namespace

quorvane_client* quorvane_client_new() try { return new quorvane_client(); } catch (...) {
  return nullptr;
}

void quorvane_client_free(quorvane_client* client) {
  delete client;
}

quorvane_result quorvane_client_connect(quorvane_client* client) {
  return settled(client, [](auto& helper) {
    return helper.connect() ? std::optional(Outcome{true, {}}) : std::nullopt;
  });
}

quorvane_result quorvane_client_write(quorvane_client* client, const char* key, int64_t value,
                                      int isFloat) {
  return settled(client,
                 [&](auto& helper) { return helper.writeFanKey(key, value, isFloat != 0); });
}

quorvane_result quorvane_client_restore_auto(quorvane_client* client) {
  return settled(client, [](auto& helper) { return helper.restoreAuto(); });
}

quorvane_result quorvane_client_ping(quorvane_client* client) {
  return settled(client, [](auto& helper) { return helper.ping(); });
}

quorvane_result quorvane_client_status(quorvane_client* client) {
  return settled(client, [](auto& helper) { return helper.status(); });
}

const char* quorvane_client_text(const quorvane_client* client) {
  return client->text.c_str();
}

const char* quorvane_client_status_value(const quorvane_client* client, const char* key) {
  for (const auto& [name, value] : client->report) {
    if (name == key) return value.c_str();
  }
  return nullptr;
}

quorvane_keeper* quorvane_keeper_new(quorvane_fan_handler handler, void* context) try {
  return new quorvane_keeper{
      quorvane::LeaseKeeper([=](int fan, FanEvent event, const std::string& text) {
        handler(context, fan, static_cast<quorvane_fan_event>(event), text.c_str());
      })};
} catch (...) {
  return nullptr;
}

void quorvane_keeper_free(quorvane_keeper* keeper) {
  delete keeper;
}

quorvane_result quorvane_keeper_hold(quorvane_keeper* keeper, int fan, int64_t rpm) {
  return guarded([&] {
    keeper->keeper.hold(fan, rpm);
    return QUORVANE_DONE;
  });
}

quorvane_result quorvane_keeper_release(quorvane_keeper* keeper, int fan) {
  return guarded([&] {
    keeper->keeper.release(fan);
    return QUORVANE_DONE;
  });
}
