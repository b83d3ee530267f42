#include "LinuxScreen.h"

#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>
#include <dlfcn.h>

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace {

constexpr TScreenPlacement kDefaultScreen{1920, 1080, 0, 0};

// Digits only (no sign), at most 5 of them, within [low, 65535].
std::optional<int> ParseNumber(std::string_view text, int low) {
    if (text.empty() || text.size() > 5) return std::nullopt;
    if (text.front() < '0' || text.front() > '9') return std::nullopt;
    int value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    if (value < low || value > 65535) return std::nullopt;
    return value;
}

// "WxH+X+Y" as xrandr prints it.
std::string Describe(const TScreenRect& r) {
    char text[96];
    std::snprintf(text, sizeof text, "%.0fx%.0f+%.0f+%.0f", r.width, r.height, r.x, r.y);
    return text;
}

std::string Where(const TScreenRect& r, double desktopWidth, double desktopHeight) {
    char text[96];
    std::snprintf(text, sizeof text, " at +%.0f+%.0f of %.0fx%.0f", r.x, r.y, desktopWidth,
                  desktopHeight);
    return text;
}

// A fraction for a udev property: six decimals, without trailing zeros ("0.75", "1", "0").
std::string Fraction(double value) {
    char text[48];
    std::snprintf(text, sizeof text, "%.6f", value);
    std::string s = text;
    s.erase(s.find_last_not_of('0') + 1);
    if (s.back() == '.') s.pop_back();
    return s;
}

// The handful of X calls the query needs, resolved at run time.
struct TXlib {
    void* x11 = nullptr;
    void* xrandr = nullptr;
    decltype(&XOpenDisplay) openDisplay = nullptr;
    decltype(&XCloseDisplay) closeDisplay = nullptr;
    decltype(&XDefaultScreen) defaultScreen = nullptr;
    decltype(&XRootWindow) rootWindow = nullptr;
    decltype(&XDisplayWidth) displayWidth = nullptr;
    decltype(&XDisplayHeight) displayHeight = nullptr;
    decltype(&XSetErrorHandler) setErrorHandler = nullptr;
    decltype(&XRRQueryExtension) queryExtension = nullptr;
    decltype(&XRRGetScreenResourcesCurrent) getResources = nullptr;
    decltype(&XRRFreeScreenResources) freeResources = nullptr;
    decltype(&XRRGetOutputPrimary) getOutputPrimary = nullptr;
    decltype(&XRRGetOutputInfo) getOutputInfo = nullptr;
    decltype(&XRRFreeOutputInfo) freeOutputInfo = nullptr;
    decltype(&XRRGetCrtcInfo) getCrtcInfo = nullptr;
    decltype(&XRRFreeCrtcInfo) freeCrtcInfo = nullptr;

    ~TXlib() {
        if (xrandr != nullptr) dlclose(xrandr);
        if (x11 != nullptr) dlclose(x11);
    }

    template <typename T>
    bool Resolve(void* library, const char* name, T* out) {
        *out = reinterpret_cast<T>(dlsym(library, name));
        return *out != nullptr;
    }

    bool Load(std::string* why) {
        x11 = dlopen("libX11.so.6", RTLD_NOW | RTLD_LOCAL);
        if (x11 == nullptr) {
            *why = "libX11 is not installed";
            return false;
        }
        const bool core = Resolve(x11, "XOpenDisplay", &openDisplay) &&
                          Resolve(x11, "XCloseDisplay", &closeDisplay) &&
                          Resolve(x11, "XDefaultScreen", &defaultScreen) &&
                          Resolve(x11, "XRootWindow", &rootWindow) &&
                          Resolve(x11, "XDisplayWidth", &displayWidth) &&
                          Resolve(x11, "XDisplayHeight", &displayHeight) &&
                          Resolve(x11, "XSetErrorHandler", &setErrorHandler);
        if (!core) {
            *why = "libX11 lacks the calls needed";
            return false;
        }
        // Without XRandR the X screen's own size still serves.
        xrandr = dlopen("libXrandr.so.2", RTLD_NOW | RTLD_LOCAL);
        if (xrandr != nullptr &&
            !(Resolve(xrandr, "XRRQueryExtension", &queryExtension) &&
              Resolve(xrandr, "XRRGetScreenResourcesCurrent", &getResources) &&
              Resolve(xrandr, "XRRFreeScreenResources", &freeResources) &&
              Resolve(xrandr, "XRRGetOutputPrimary", &getOutputPrimary) &&
              Resolve(xrandr, "XRRGetOutputInfo", &getOutputInfo) &&
              Resolve(xrandr, "XRRFreeOutputInfo", &freeOutputInfo) &&
              Resolve(xrandr, "XRRGetCrtcInfo", &getCrtcInfo) &&
              Resolve(xrandr, "XRRFreeCrtcInfo", &freeCrtcInfo))) {
            dlclose(xrandr);
            xrandr = nullptr;
        }
        return true;
    }
};

// A failing request (an output unplugged during the query) must not end the process, which is
// what Xlib's default handler does.
int IgnoreXError(Display*, XErrorEvent*) {
    return 0;
}

// The CRTC rectangle of an output, when the output is lit.
std::optional<TScreenRect> OutputRect(TXlib& x, Display* display, XRRScreenResources* resources,
                                      RROutput output, TDisplayOutput* out) {
    XRROutputInfo* info = x.getOutputInfo(display, resources, output);
    if (info == nullptr) return std::nullopt;
    std::optional<TScreenRect> rect;
    if (info->connection == RR_Connected && info->crtc != 0) {
        if (XRRCrtcInfo* crtc = x.getCrtcInfo(display, resources, info->crtc); crtc != nullptr) {
            if (crtc->width > 0 && crtc->height > 0) {
                rect = TScreenRect{static_cast<double>(crtc->x), static_cast<double>(crtc->y),
                                   static_cast<double>(crtc->width),
                                   static_cast<double>(crtc->height)};
                out->name.assign(info->name, static_cast<size_t>(info->nameLen));
                out->widthMm = static_cast<int>(std::clamp<unsigned long>(info->mm_width, 0, 1000000));
                out->heightMm = static_cast<int>(std::clamp<unsigned long>(info->mm_height, 0, 1000000));
            }
            x.freeCrtcInfo(crtc);
        }
    }
    x.freeOutputInfo(info);
    return rect;
}

}  // namespace

std::optional<TScreenPlacement> ParseScreenPlacement(std::string_view text) {
    const size_t cross = text.find('x');
    if (cross == std::string_view::npos) return std::nullopt;
    const size_t plus = text.find('+', cross);
    const std::string_view size = text.substr(0, plus);
    const auto width = ParseNumber(size.substr(0, cross), 1);
    const auto height = ParseNumber(size.substr(cross + 1), 1);
    if (!width || !height) return std::nullopt;
    TScreenPlacement placement{*width, *height, 0, 0};
    if (plus == std::string_view::npos) return placement;

    const std::string_view offsets = text.substr(plus + 1);
    const size_t second = offsets.find('+');
    if (second == std::string_view::npos) return std::nullopt;
    const auto x = ParseNumber(offsets.substr(0, second), 0);
    const auto y = ParseNumber(offsets.substr(second + 1), 0);
    if (!x || !y) return std::nullopt;
    placement.x = *x;
    placement.y = *y;
    return placement;
}

std::optional<TXrandrDesktop> QueryXrandrDesktop(const char* displayName, std::string* why) {
    TXlib x;
    if (!x.Load(why)) return std::nullopt;
    Display* display = x.openDisplay(displayName);
    if (display == nullptr) {
        *why = "no X server answered";
        return std::nullopt;
    }
    auto* previousHandler = x.setErrorHandler(&IgnoreXError);
    const int screen = x.defaultScreen(display);
    const Window root = x.rootWindow(display, screen);

    TXrandrDesktop desktop;
    desktop.width = x.displayWidth(display, screen);
    desktop.height = x.displayHeight(display, screen);

    int eventBase = 0, errorBase = 0;
    if (x.xrandr != nullptr && x.queryExtension(display, &eventBase, &errorBase)) {
        if (XRRScreenResources* resources = x.getResources(display, root); resources != nullptr) {
            const RROutput primary = x.getOutputPrimary(display, root);
            for (int i = 0; i < resources->noutput; ++i) {
                TDisplayOutput output;
                const RROutput id = resources->outputs[i];
                if (auto rect = OutputRect(x, display, resources, id, &output)) {
                    output.rect = *rect;
                    output.primary = id == primary;
                    desktop.outputs.push_back(std::move(output));
                }
            }
            x.freeResources(resources);
        }
    }
    x.setErrorHandler(previousHandler);
    x.closeDisplay(display);
    if (desktop.width <= 0 || desktop.height <= 0) {
        *why = "the X server reported no screen size";
        return std::nullopt;
    }
    return desktop;
}

std::optional<TDisplayGeometry> ChooseOutputGeometry(const std::vector<TDisplayOutput>& outputs,
                                                     const std::string& wanted,
                                                     double desktopWidth, double desktopHeight,
                                                     std::string* error,
                                                     const std::string& origin) {
    const TDisplayOutput* chosen = nullptr;
    for (const TDisplayOutput& output : outputs) {
        const bool match = wanted.empty() ? output.primary : output.name == wanted;
        if (match) {
            chosen = &output;
            break;
        }
    }
    if (chosen == nullptr && wanted.empty() && !outputs.empty()) chosen = &outputs.front();

    TDisplayGeometry geometry;
    geometry.desktopWidth = desktopWidth;
    geometry.desktopHeight = desktopHeight;
    if (chosen != nullptr) {
        geometry.main = chosen->rect;
        geometry.widthMm = chosen->widthMm;
        geometry.heightMm = chosen->heightMm;
        geometry.source = origin + " output " + chosen->name;
    } else if (wanted.empty()) {
        geometry.main = TScreenRect{0, 0, desktopWidth, desktopHeight};
        geometry.source = "the X screen";
    } else {
        std::string list;
        for (const TDisplayOutput& output : outputs) {
            list += (list.empty() ? "" : ", ") + output.name + " " + Describe(output.rect) +
                    (output.primary ? " (primary)" : "");
        }
        *error = "no " + origin + " output named '" + wanted + "'; " +
                 (list.empty() ? "the X server reports no lit output" : "the outputs are: " + list);
        return std::nullopt;
    }
    geometry.source += Where(geometry.main, desktopWidth, desktopHeight);
    return geometry;
}

std::optional<TDisplayGeometry> ResolveDisplayGeometry(const std::optional<TXrandrDesktop>& fromX,
                                                       const TScreenRequest& request,
                                                       const std::string& whyNoX,
                                                       std::string* error) {
    if (fromX) {
        return ChooseOutputGeometry(fromX->outputs, request.output, fromX->width, fromX->height,
                                    error, fromX->origin);
    }
    if (!request.output.empty() && !request.placement) {
        *error = "output '" + request.output + "' cannot be looked up (" + whyNoX +
                 "); give its place with --screen WxH+X+Y";
        return std::nullopt;
    }
    const TScreenPlacement p = request.placement.value_or(kDefaultScreen);
    TDisplayGeometry geometry;
    geometry.main = TScreenRect{static_cast<double>(p.x), static_cast<double>(p.y),
                                static_cast<double>(p.width), static_cast<double>(p.height)};
    geometry.desktopWidth = geometry.main.x + geometry.main.width;
    geometry.desktopHeight = geometry.main.y + geometry.main.height;
    if (request.desktop) {
        // The screen need not be the last one: the desktop may reach beyond it.
        geometry.desktopWidth = std::max<double>(geometry.desktopWidth, request.desktop->width);
        geometry.desktopHeight = std::max<double>(geometry.desktopHeight, request.desktop->height);
    }
    geometry.source = request.placement ? "--screen" : "the default";
    if (!request.output.empty()) geometry.source += " as output " + request.output;
    if (p.x != 0 || p.y != 0) {
        geometry.source += Where(geometry.main, geometry.desktopWidth, geometry.desktopHeight);
    }
    geometry.source += " (" + whyNoX + ")";
    return geometry;
}

std::string LibinputCalibrationLine(const TDisplayGeometry& geometry) {
    const double w = geometry.desktopWidth, h = geometry.desktopHeight;
    if (!(w > 0) || !(h > 0)) return "";
    const TScreenRect& r = geometry.main;
    return "ENV{LIBINPUT_CALIBRATION_MATRIX}=\"" + Fraction(r.width / w) + " 0 " +
           Fraction(r.x / w) + " 0 " + Fraction(r.height / h) + " " + Fraction(r.y / h) + "\"";
}
