// The D-Bus methods' argument checks on arbitrary bytes: the override JSON reader, the scan
// pattern and touch-system checks, and the readers that take an argument out of a message (the
// bytes appended as an array, or as a string when they are valid UTF-8).
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "DbusArguments.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const uint8_t selector = data[0];
    const uint8_t* payload = data + 1;
    const size_t length = size - 1;
    TDbusArgumentLimits limits;
    limits.maxJsonBytes = 4096;  // keeps each run short; the checks are the same
    const std::string_view text(reinterpret_cast<const char*>(payload), length);

    _HARDWARE_CONFIG_OVERRIDE override{};
    TFrameRequest request;
    switch (selector % 4) {
        case 0: {
            const TArgumentCheck check = ParseOverrideJson(text, limits, &override);
            // What was accepted is written and read back the same.
            if (check.ok) {
                _HARDWARE_CONFIG_OVERRIDE again{};
                if (!ParseOverrideJson(OverrideToJson(override), limits, &again).ok) __builtin_trap();
            }
            break;
        }
        case 1:
            MakeScanPatternRequest(std::vector<uint8_t>(payload, payload + length), limits, &request);
            break;
        case 2:
            CheckTouchSystemFile(length, limits);
            BytesToJson(std::vector<uint8_t>(payload, payload + std::min<size_t>(length, 64)));
            break;
        default: {
            // A bus over a socketpair nobody answers: messages can be built and read.
            int fds[2];
            if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return 0;
            sd_bus* bus = nullptr;
            sd_bus_message* m = nullptr;
            if (sd_bus_new(&bus) < 0 || sd_bus_set_fd(bus, fds[0], fds[0]) < 0 ||
                sd_bus_start(bus) < 0) {
                sd_bus_unref(bus);
                close(fds[0]);
                close(fds[1]);
                return 0;
            }
            if (sd_bus_message_new_method_call(bus, &m, "org.irframe.Driver1",
                                               "/org/irframe/Driver1/frame1",
                                               "org.irframe.Driver1.Frame", "WriteConfig") >= 0) {
                // Invalid UTF-8 is refused by the append, as the bus would refuse it.
                const std::string nulTerminated(text);
                const bool asText = (selector & 0x80) != 0;
                const int appended =
                    asText ? sd_bus_message_append(m, "s", nulTerminated.c_str())
                           : sd_bus_message_append_array(m, 'y', payload, length);
                if (appended >= 0 && sd_bus_message_seal(m, 1, 0) >= 0) {
                    TArgumentCheck check;
                    if (asText) {
                        std::string out;
                        if (ReadStringArgument(m, limits.maxJsonBytes, &out, &check) == 0 &&
                            check.ok) {
                            MakeWriteOverrideRequest(out, TConfigJsonCodec{}, limits, &request);
                        }
                    } else {
                        std::vector<uint8_t> out;
                        if (ReadByteArrayArgument(m, limits.maxScanPatternBytes, &out, &check) == 0 &&
                            check.ok) {
                            MakeTouchSystemRequest(std::move(out), limits, &request);
                        }
                    }
                }
            }
            sd_bus_message_unref(m);
            sd_bus_close_unref(bus);
            close(fds[1]);
            break;
        }
    }
    return 0;
}
