// The readers of GNOME's and KDE's monitor lists on arbitrary input: a reply message built from
// the bytes (any nesting of variants, structs, arrays and dictionaries) read into JSON, and any
// JSON read as GetCurrentState's or getConfig's answer.
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "DesktopDisplayServices.h"

namespace {

class CBytes {
public:
    CBytes(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool Empty() const { return m_at >= m_size; }
    uint8_t Next() { return m_at < m_size ? m_data[m_at++] : 0; }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_at = 0;
};

// Appends values chosen by the bytes, variants nested past the reader's depth limit among them.
void AppendValue(sd_bus_message* m, CBytes& bytes, int depth) {
    const uint8_t kind = bytes.Next() % (depth > 8 ? 8 : 9);
    switch (kind) {
        case 0: sd_bus_message_append(m, "i", static_cast<int8_t>(bytes.Next()) * 97); break;
        case 1: sd_bus_message_append(m, "d", bytes.Next() / 7.0); break;
        case 2: sd_bus_message_append(m, "b", bytes.Next() & 1); break;
        case 3: {
            std::string text;
            for (uint8_t n = bytes.Next() % 12; n > 0; --n) text += static_cast<char>('a' + bytes.Next() % 26);
            sd_bus_message_append(m, "s", text.c_str());
            break;
        }
        case 4: sd_bus_message_append(m, "t", static_cast<uint64_t>(bytes.Next()) << 40); break;
        case 5:
            sd_bus_message_open_container(m, 'v', "av");
            [[fallthrough]];
        case 6: {
            sd_bus_message_open_container(m, 'a', "v");
            for (uint8_t n = bytes.Next() % 4; n > 0 && !bytes.Empty(); --n) {
                sd_bus_message_open_container(m, 'v', "a{sv}");
                sd_bus_message_open_container(m, 'a', "{sv}");
                sd_bus_message_open_container(m, 'e', "sv");
                sd_bus_message_append(m, "s", bytes.Next() % 2 ? "outputs" : "pos");
                sd_bus_message_open_container(m, 'v', "av");
                sd_bus_message_open_container(m, 'a', "v");
                sd_bus_message_open_container(m, 'v', "i");
                sd_bus_message_append(m, "i", static_cast<int>(bytes.Next()));
                sd_bus_message_close_container(m);
                sd_bus_message_close_container(m);
                sd_bus_message_close_container(m);
                sd_bus_message_close_container(m);
                sd_bus_message_close_container(m);
                sd_bus_message_close_container(m);
            }
            sd_bus_message_close_container(m);
            if (kind == 5) sd_bus_message_close_container(m);
            break;
        }
        case 7: {
            // Variants within variants: the nesting the depth limit guards.
            const int levels = bytes.Next() % (kBusJsonMaxDepth + 4);
            for (int i = 0; i < levels; ++i) sd_bus_message_open_container(m, 'v', "v");
            sd_bus_message_append(m, "v", "i", 1);
            for (int i = 0; i < levels; ++i) sd_bus_message_close_container(m);
            break;
        }
        default:
            sd_bus_message_open_container(m, 'r', "iv");
            sd_bus_message_append(m, "i", 2);
            sd_bus_message_open_container(m, 'v', "s");
            sd_bus_message_append(m, "s", "x");
            sd_bus_message_close_container(m);
            sd_bus_message_close_container(m);
            AppendValue(m, bytes, depth + 1);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    if (data[0] % 2 == 0) {
        const nlohmann::json reply =
            nlohmann::json::parse(data + 1, data + size, nullptr, false);
        if (!reply.is_discarded()) {
            MutterStateFromJson(reply);
            KscreenHeadsFromJson(reply);
        }
        return 0;
    }
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return 0;
    sd_bus* bus = nullptr;
    sd_bus_message* m = nullptr;
    if (sd_bus_new(&bus) >= 0 && sd_bus_set_fd(bus, fds[0], fds[0]) >= 0 && sd_bus_start(bus) >= 0 &&
        sd_bus_message_new_method_call(bus, &m, "org.kde.KScreen", "/backend", nullptr,
                                       "getConfig") >= 0) {
        CBytes bytes(data + 1, size - 1);
        for (int values = 0; values < 64 && !bytes.Empty(); ++values) AppendValue(m, bytes, 0);
        if (sd_bus_message_seal(m, 1, 0) >= 0 && sd_bus_message_rewind(m, 1) >= 0) {
            std::string why;
            if (const auto json = BusArgumentsToJson(m, &why)) {
                KscreenHeadsFromJson(*json);
                MutterStateFromJson(*json);
                json->dump();  // every string kept is whole UTF-8
            }
        }
    }
    sd_bus_message_unref(m);
    sd_bus_unref(bus);
    close(fds[0]);
    close(fds[1]);
    return 0;
}
