#include "WlrOutputLayout.h"

#include <wayland-client.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "wlr-output-management-unstable-v1-client-protocol.h"

namespace {

struct TMode {
    zwlr_output_mode_v1* mode = nullptr;
    int width = 0, height = 0;
};

struct THead {
    zwlr_output_head_v1* proxy = nullptr;
    TWlrHead head;
    std::vector<std::unique_ptr<TMode>> modes;
    zwlr_output_mode_v1* current = nullptr;
};

struct TReader {
    zwlr_output_manager_v1* manager = nullptr;
    std::vector<std::unique_ptr<THead>> heads;
    bool done = false;
};


void ModeSize(void* data, zwlr_output_mode_v1*, int32_t width, int32_t height) {
    auto* mode = static_cast<TMode*>(data);
    mode->width = width;
    mode->height = height;
}
void ModeRefresh(void*, zwlr_output_mode_v1*, int32_t) {}
void ModePreferred(void*, zwlr_output_mode_v1*) {}
void ModeFinished(void*, zwlr_output_mode_v1*) {}
const zwlr_output_mode_v1_listener kModeListener = {ModeSize, ModeRefresh, ModePreferred,
                                                    ModeFinished};

THead* Head(void* data) { return static_cast<THead*>(data); }

void HeadMode(void* data, zwlr_output_head_v1*, zwlr_output_mode_v1* proxy) {
    auto mode = std::make_unique<TMode>();
    mode->mode = proxy;
    zwlr_output_mode_v1_add_listener(proxy, &kModeListener, mode.get());
    Head(data)->modes.push_back(std::move(mode));
}
void HeadName(void* data, zwlr_output_head_v1*, const char* name) {
    Head(data)->head.name = PrintableOutputName(name);
}
void HeadDescription(void*, zwlr_output_head_v1*, const char*) {}
void HeadPhysicalSize(void* data, zwlr_output_head_v1*, int32_t width, int32_t height) {
    Head(data)->head.widthMm = width;
    Head(data)->head.heightMm = height;
}
void HeadEnabled(void* data, zwlr_output_head_v1*, int32_t enabled) {
    Head(data)->head.enabled = enabled != 0;
}
void HeadCurrentMode(void* data, zwlr_output_head_v1*, zwlr_output_mode_v1* mode) {
    Head(data)->current = mode;
}
void HeadPosition(void* data, zwlr_output_head_v1*, int32_t x, int32_t y) {
    Head(data)->head.x = x;
    Head(data)->head.y = y;
}
void HeadTransform(void* data, zwlr_output_head_v1*, int32_t transform) {
    Head(data)->head.transform = transform;
}
void HeadScale(void* data, zwlr_output_head_v1*, wl_fixed_t scale) {
    Head(data)->head.scale = wl_fixed_to_double(scale);
}
void HeadFinished(void*, zwlr_output_head_v1*) {}
const zwlr_output_head_v1_listener kHeadListener = {
    HeadName,        HeadDescription, HeadPhysicalSize, HeadMode,  HeadEnabled,
    HeadCurrentMode, HeadPosition,    HeadTransform,    HeadScale, HeadFinished};

void ManagerHead(void* data, zwlr_output_manager_v1*, zwlr_output_head_v1* proxy) {
    auto head = std::make_unique<THead>();
    head->proxy = proxy;
    zwlr_output_head_v1_add_listener(proxy, &kHeadListener, head.get());
    static_cast<TReader*>(data)->heads.push_back(std::move(head));
}
void ManagerDone(void* data, zwlr_output_manager_v1*, uint32_t) {
    static_cast<TReader*>(data)->done = true;
}
void ManagerFinished(void* data, zwlr_output_manager_v1*) {
    static_cast<TReader*>(data)->done = true;
}
const zwlr_output_manager_v1_listener kManagerListener = {ManagerHead, ManagerDone,
                                                          ManagerFinished};

void Global(void* data, wl_registry* registry, uint32_t name, const char* interface,
            uint32_t) {
    auto* reader = static_cast<TReader*>(data);
    if (reader->manager == nullptr &&
        std::strcmp(interface, zwlr_output_manager_v1_interface.name) == 0) {
        reader->manager = static_cast<zwlr_output_manager_v1*>(
            wl_registry_bind(registry, name, &zwlr_output_manager_v1_interface, 1));
        zwlr_output_manager_v1_add_listener(reader->manager, &kManagerListener, reader);
    }
}
void GlobalRemove(void*, wl_registry*, uint32_t) {}
const wl_registry_listener kRegistryListener = {Global, GlobalRemove};

}  // namespace

std::string PrintableOutputName(const char* text) {
    std::string out;
    for (const char* c = text; c != nullptr && *c != '\0' && out.size() < 64; ++c) {
        out += (*c > ' ' && *c < 0x7F) ? *c : '?';
    }
    return out;
}

TXrandrDesktop LayoutOfHeads(const std::vector<TWlrHead>& heads) {
    TXrandrDesktop desktop;
    desktop.origin = "compositor";
    for (const TWlrHead& head : heads) {
        if (!head.enabled || head.modeWidth <= 0 || head.modeHeight <= 0) continue;
        const bool turned = (head.transform & 1) != 0;
        const double scale = head.scale > 0 ? head.scale : 1.0;
        TDisplayOutput output;
        output.name = head.name;
        // The compositor's space holds the mode turned and divided by the scale, rounded as
        // wlroots rounds it.
        output.rect = TScreenRect{
            static_cast<double>(head.x), static_cast<double>(head.y),
            std::round((turned ? head.modeHeight : head.modeWidth) / scale),
            std::round((turned ? head.modeWidth : head.modeHeight) / scale)};
        output.widthMm = std::max(0, head.widthMm);
        output.heightMm = std::max(0, head.heightMm);
        output.primary = head.primary;
        desktop.width = std::max(desktop.width, output.rect.x + output.rect.width);
        desktop.height = std::max(desktop.height, output.rect.y + output.rect.height);
        desktop.outputs.push_back(std::move(output));
    }
    return desktop;
}

std::optional<TXrandrDesktop> QueryWlrOutputs(const char* display, std::string* why) {
    const std::optional<std::vector<TWlrHead>> heads = QueryWlrHeads(display, why);
    if (!heads) return std::nullopt;
    TXrandrDesktop layout = LayoutOfHeads(*heads);
    if (layout.outputs.empty()) {
        *why = "the Wayland compositor has no enabled output";
        return std::nullopt;
    }
    return layout;
}

std::optional<std::vector<TWlrHead>> QueryWlrHeads(const char* display, std::string* why) {
    wl_display* connection = wl_display_connect(display);
    if (connection == nullptr) {
        *why = "no Wayland compositor answered";
        return std::nullopt;
    }
    TReader reader;
    wl_registry* registry = wl_display_get_registry(connection);
    wl_registry_add_listener(registry, &kRegistryListener, &reader);
    bool ok = wl_display_roundtrip(connection) >= 0;
    // The heads, their modes and the first done come within a few round trips.
    for (int i = 0; ok && reader.manager != nullptr && !reader.done && i < 8; ++i) {
        ok = wl_display_roundtrip(connection) >= 0;
    }
    std::optional<std::vector<TWlrHead>> heads;
    if (reader.manager == nullptr) {
        *why = "the Wayland compositor offers no wlr-output-management";
    } else if (!ok || !reader.done) {
        *why = "the Wayland compositor did not describe its outputs";
    } else {
        heads.emplace();
        for (const auto& h : reader.heads) {
            TWlrHead head = h->head;
            for (const auto& mode : h->modes) {
                if (mode->mode != h->current) continue;
                head.modeWidth = mode->width;
                head.modeHeight = mode->height;
            }
            heads->push_back(head);
        }
    }
    for (const auto& h : reader.heads) {
        for (const auto& mode : h->modes) wl_proxy_destroy(reinterpret_cast<wl_proxy*>(mode->mode));
        wl_proxy_destroy(reinterpret_cast<wl_proxy*>(h->proxy));
    }
    if (reader.manager != nullptr) zwlr_output_manager_v1_destroy(reader.manager);
    wl_registry_destroy(registry);
    wl_display_disconnect(connection);
    return heads;
}
