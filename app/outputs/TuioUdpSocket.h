// Where a TUIO stream's bundles go: a datagram socket to one target, behind an interface so that
// tests and benchmarks can stand in for the network.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "TuioSettings.h"

class ITuioSocket {
public:
    virtual ~ITuioSocket() = default;
    // False with `error` set when the datagram could not be handed to the system. Never blocks:
    // a datagram that does not fit the socket's buffer is dropped, as UDP may drop it anyway.
    virtual bool Send(std::span<const uint8_t> bytes, std::string* error) = 0;
    // The target is on this machine (a loopback address).
    virtual bool Loopback() const = 0;
};

// Opens a socket to `target`, looking its host up (once, here). Null with `error` set when the
// host cannot be looked up or no socket can be made for it.
using TTuioSocketFactory =
    std::function<std::unique_ptr<ITuioSocket>(const TTuioTarget& target, std::string* error)>;

std::unique_ptr<ITuioSocket> OpenTuioUdpSocket(const TTuioTarget& target, std::string* error);
