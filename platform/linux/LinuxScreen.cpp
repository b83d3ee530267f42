#include "LinuxScreen.h"

#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>
#include <dlfcn.h>

#include <charconv>
#include <cstdio>

namespace {

constexpr TScreenSize kDefaultScreen{1920, 1080};

std::optional<int> ParseDimension(std::string_view text) {
    if (text.empty() || text.size() > 5) return std::nullopt;
    int value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    if (value < 1 || value > 65535) return std::nullopt;
    return value;
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
                                      RROutput output, std::string* name) {
    XRROutputInfo* info = x.getOutputInfo(display, resources, output);
    if (info == nullptr) return std::nullopt;
    std::optional<TScreenRect> rect;
    if (info->connection == RR_Connected && info->crtc != 0) {
        if (XRRCrtcInfo* crtc = x.getCrtcInfo(display, resources, info->crtc); crtc != nullptr) {
            if (crtc->width > 0 && crtc->height > 0) {
                rect = TScreenRect{static_cast<double>(crtc->x), static_cast<double>(crtc->y),
                                   static_cast<double>(crtc->width),
                                   static_cast<double>(crtc->height)};
                name->assign(info->name, static_cast<size_t>(info->nameLen));
            }
            x.freeCrtcInfo(crtc);
        }
    }
    x.freeOutputInfo(info);
    return rect;
}

}  // namespace

std::optional<TScreenSize> ParseScreenSize(std::string_view text) {
    const size_t cross = text.find('x');
    if (cross == std::string_view::npos) return std::nullopt;
    const auto width = ParseDimension(text.substr(0, cross));
    const auto height = ParseDimension(text.substr(cross + 1));
    if (!width || !height) return std::nullopt;
    return TScreenSize{*width, *height};
}

std::optional<TDisplayGeometry> QueryXrandrGeometry(const char* displayName, std::string* why) {
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

    TDisplayGeometry geometry;
    geometry.desktopWidth = x.displayWidth(display, screen);
    geometry.desktopHeight = x.displayHeight(display, screen);
    geometry.main = TScreenRect{0, 0, geometry.desktopWidth, geometry.desktopHeight};
    geometry.source = "the X screen";

    int eventBase = 0, errorBase = 0;
    if (x.xrandr != nullptr && x.queryExtension(display, &eventBase, &errorBase)) {
        if (XRRScreenResources* resources = x.getResources(display, root); resources != nullptr) {
            std::string name;
            std::optional<TScreenRect> rect;
            if (RROutput primary = x.getOutputPrimary(display, root); primary != 0) {
                rect = OutputRect(x, display, resources, primary, &name);
            }
            for (int i = 0; !rect && i < resources->noutput; ++i) {
                rect = OutputRect(x, display, resources, resources->outputs[i], &name);
            }
            if (rect) {
                geometry.main = *rect;
                geometry.source = "XRandR output " + name;
            }
            x.freeResources(resources);
        }
    }
    x.setErrorHandler(previousHandler);
    x.closeDisplay(display);
    if (geometry.main.width <= 0 || geometry.main.height <= 0) {
        *why = "the X server reported no screen size";
        return std::nullopt;
    }
    char where[96];
    std::snprintf(where, sizeof where, " at +%.0f+%.0f of %.0fx%.0f", geometry.main.x,
                  geometry.main.y, geometry.desktopWidth, geometry.desktopHeight);
    geometry.source += where;
    return geometry;
}

TDisplayGeometry ResolveDisplayGeometry(const std::optional<TDisplayGeometry>& fromX,
                                        const std::optional<TScreenSize>& fromOption,
                                        const std::string& whyNoX) {
    if (fromX) return *fromX;
    const TScreenSize size = fromOption ? *fromOption : kDefaultScreen;
    TDisplayGeometry geometry;
    geometry.main = TScreenRect{0, 0, static_cast<double>(size.width),
                                static_cast<double>(size.height)};
    geometry.desktopWidth = size.width;
    geometry.desktopHeight = size.height;
    geometry.source = std::string(fromOption ? "--screen" : "the default") + " (" + whyNoX + ")";
    return geometry;
}
