#include "BusNameClaim.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "StopSignalWaits.h"

namespace {

constexpr const char* kBusService = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";
constexpr const char* kBusInterface = "org.freedesktop.DBus";

// A bound on a wait, not a reading of the time of day.
uint64_t MonotonicMicros() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000u +
           static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

}  // namespace

CBusNameClaim::CBusNameClaim(sd_bus* bus, std::string name, TMode mode)
    : m_bus(sd_bus_ref(bus)), m_name(std::move(name)), m_mode(mode) {}

CBusNameClaim::~CBusNameClaim() {
    m_lostSlot = sd_bus_slot_unref(m_lostSlot);
    m_bus = sd_bus_unref(m_bus);
}

std::string CBusNameClaim::CurrentOwner() {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    std::string owner;
    if (sd_bus_call_method(m_bus, kBusService, kBusPath, kBusInterface, "GetNameOwner", &error,
                           &reply, "s", m_name.c_str()) >= 0) {
        const char* unique = nullptr;
        if (sd_bus_message_read(reply, "s", &unique) >= 0 && unique != nullptr) owner = unique;
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    return owner;
}

CBusNameClaim::TResult CBusNameClaim::Request(int waitMillis, std::string* detail) {
    if (m_owned) return TResult::Owner;
    // The lost signal is addressed to this connection; the match lets it through to us. It is
    // in place before the request, so a loss right after it cannot slip by.
    if (m_lostSlot == nullptr) {
        const int r = sd_bus_match_signal(m_bus, &m_lostSlot, kBusService, kBusPath, kBusInterface,
                                          "NameLost", &OnNameLost, this);
        if (r < 0) {
            if (detail != nullptr) *detail = std::string("cannot watch the name: ") + std::strerror(-r);
            return TResult::Error;
        }
    }
    const bool exchange = m_mode == TMode::Exchange;
    const std::string previous = exchange ? CurrentOwner() : std::string();
    // Without SD_BUS_NAME_QUEUE the request never waits in line behind the owner.
    const uint64_t flags =
        exchange ? SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING : 0;
    const int r = sd_bus_request_name(m_bus, m_name.c_str(), flags);
    if (r == -EEXIST) {
        if (detail != nullptr) {
            const std::string owner = CurrentOwner();
            *detail = m_name + " is held by " + (owner.empty() ? "another process" : owner);
        }
        return TResult::Taken;
    }
    if (r < 0 && r != -EALREADY) {
        if (detail != nullptr) *detail = "cannot request " + m_name + ": " + std::strerror(-r);
        return TResult::Error;
    }
    m_owned = true;
    if (!previous.empty() && !WaitUntilGone(previous, waitMillis) && detail != nullptr) {
        *detail = "the replaced instance (" + previous + ") is still on the bus";
    }
    return TResult::Owner;
}

bool CBusNameClaim::WaitUntilGone(const std::string& unique, int waitMillis) {
    // The replaced instance leaves the bus when its process ends, after it has closed its
    // frames. Its unique name going is the sign.
    m_waitingFor = unique;
    sd_bus_slot* slot = nullptr;
    if (sd_bus_match_signal(m_bus, &slot, kBusService, kBusPath, kBusInterface, "NameOwnerChanged",
                            &OnOwnerChanged, this) < 0) {
        m_waitingFor.clear();
        return false;
    }
    // It may have gone before the match was in place.
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int hasOwner = 1;
    if (sd_bus_call_method(m_bus, kBusService, kBusPath, kBusInterface, "NameHasOwner", &error,
                           &reply, "s", unique.c_str()) >= 0) {
        sd_bus_message_read(reply, "b", &hasOwner);
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    if (!hasOwner) m_waitingFor.clear();

    const uint64_t deadline = MonotonicMicros() + static_cast<uint64_t>(waitMillis) * 1000u;
    while (!m_waitingFor.empty()) {
        const int processed = sd_bus_process(m_bus, nullptr);
        if (processed < 0) break;
        if (processed > 0) continue;
        const uint64_t now = MonotonicMicros();
        if (now >= deadline || StopSignalPending()) break;  // the loop then ends the driver
        if (sd_bus_wait(m_bus, std::min<uint64_t>(deadline - now, kStopCheckMicros)) < 0) break;
    }
    sd_bus_slot_unref(slot);
    const bool gone = m_waitingFor.empty();
    m_waitingFor.clear();
    return gone;
}

void CBusNameClaim::Release() {
    if (!m_owned) return;
    m_owned = false;  // the NameLost that follows is our own doing
    sd_bus_release_name(m_bus, m_name.c_str());
}

int CBusNameClaim::OnNameLost(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* claim = static_cast<CBusNameClaim*>(self);
    const char* name = nullptr;
    if (sd_bus_message_read(message, "s", &name) < 0 || name == nullptr) return 0;
    if (claim->m_name != name || !claim->m_owned) return 0;
    claim->m_owned = false;
    if (claim->m_lost) {
        const std::function<void()> lost = claim->m_lost;  // the callback may reset ours
        lost();
    }
    return 0;
}

int CBusNameClaim::OnOwnerChanged(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* claim = static_cast<CBusNameClaim*>(self);
    const char *name = nullptr, *oldOwner = nullptr, *newOwner = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) < 0) return 0;
    if (name != nullptr && newOwner != nullptr && claim->m_waitingFor == name && *newOwner == 0) {
        claim->m_waitingFor.clear();
    }
    return 0;
}
