// irframectl map: puts a frame's touchscreen on a monitor in the running desktop's own setting,
// and the gestures' pointer on the same monitor through the configuration's drop-in.
#include <systemd/sd-bus.h>

#include <cstdlib>
#include <ostream>

#include "BusTransport.h"
#include "Commands.h"
#include "DesktopMapping.h"
#include "DriverConfig.h"
#include "OutputFile.h"
#include "Present.h"
#include "QuotedText.h"
#include "UinputTouchscreen.h"

namespace {

// The touchscreen devices of `frame`: the driver's, else the names it gives them.
std::vector<TTouchscreenId> Touchscreens(TToolContext& ctx, const TFrameEntry& frame,
                                         std::optional<int> area) {
    std::vector<std::string> names = frame.touchscreens;
    const std::string areaSuffix = area ? " area " + std::to_string(*area) : "";
    if (names.empty()) {
        TContactSource source;
        source.device = frame.number;
        source.serial = frame.serial;
        if (frame.node.rfind("/dev/", 0) == 0) source.node = frame.node;
        names.push_back(TouchscreenDeviceName(source, area ? *area : -1));
        ctx.err << "irframectl: frame " << frame.number << " has no touchscreen now (irframed "
                << "runs without --touchscreen, or not at all): setting it for the name it "
                << "gets, " << QuotedText(names.back()) << "\n";
    } else if (area) {
        std::erase_if(names, [&](const std::string& name) { return !name.ends_with(areaSuffix); });
        if (names.empty()) {
            throw CToolError(kCtlUsage, "frame " + std::to_string(frame.number) +
                                            " has no touchscreen for area " +
                                            std::to_string(*area) + "; its touchscreens: " +
                                            EscapedText(frame.touchscreens.front()) +
                                            (frame.touchscreens.size() > 1 ? ", ..." : ""));
        }
    }
    std::vector<TTouchscreenId> devices;
    for (const std::string& name : names) devices.push_back({name, frame.vendorId, frame.productId});
    return devices;
}

std::string UserConfigHome() {
    const std::string dir = UserConfigDir(ProcessConfigEnvironment(""));
    if (dir.empty()) {
        throw CToolError(kCtlFailure, "neither XDG_CONFIG_HOME nor HOME names a directory; set "
                                      "HOME");
    }
    return dir.substr(0, dir.rfind('/'));
}

// The gestures' pointer on `output`, as --display: the user's drop-in, then a reload.
void MapPointer(TToolContext& ctx, const std::string& output) {
    const std::string dir = UserConfigHome() + "/irframe/irframe.d";
    MakeDirectories(dir);
    std::string error;
    const std::string path = dir + "/40-map.toml";
    COutputFile file;
    if (!file.Open(path, COutputFile::TExisting::Replace, &error) ||
        !file.Write("# Written by irframectl map: the monitor the gestures' pointer maps into.\n"
                    "[screen]\noutput = \"" + output + "\"\n") ||
        !file.Commit(&error)) {
        throw CToolError(kCtlFailure, error.empty() ? "cannot write " + QuotedText(path) : error);
    }
    ctx.out << "pointer: " << path << ": screen.output = \"" << output << "\"\n";
    ctx.out << "pointer: " << ReloadDriver() << "\n";
}

std::vector<TFrameEntry> Frames(TToolContext& ctx, bool all) {
    const std::vector<TFrameEntry> frames = ctx.transport.List();
    if (all && ctx.frame.empty()) {
        if (frames.empty()) {
            throw CToolError(kCtlNoFrame, "no touch frame found (" + ctx.transport.Name() + ")");
        }
        return frames;
    }
    return {PickFrame(frames, ctx.frame)};
}

}  // namespace

int CmdMap(TToolContext& ctx, const TMapOptions& options) {
    std::optional<TDesktop> desktop;
    if (!options.desktop.empty()) {
        desktop = ParseDesktop(options.desktop);
        if (!desktop) {
            throw CToolError(kCtlUsage, "--desktop " + QuotedText(options.desktop) +
                                            " is not gnome, kde, wlroots or x11");
        }
    }
    if (options.show) {
        const std::string home = UserConfigHome();
        for (const TFrameEntry& frame : Frames(ctx, true)) {
            for (const TTouchscreenId& device : Touchscreens(ctx, frame, options.area)) {
                ctx.out << "frame " << frame.number << " " << EscapedText(device.name) << ":\n";
                for (TDesktop d : {TDesktop::Gnome, TDesktop::Kde, TDesktop::Wlroots,
                                   TDesktop::X11}) {
                    if (desktop && d != *desktop) continue;
                    std::string said;
                    try {
                        said = MakeDesktopMapping(d, home)->Show(device);
                    } catch (const CToolError& e) {
                        said = e.what();
                    }
                    ctx.out << "  " << DesktopName(d) << ": " << said << "\n";
                }
            }
        }
        return kCtlOk;
    }
    if (!IsOutputName(options.output)) {
        throw CToolError(kCtlUsage, options.output.empty()
                                        ? "map needs the monitor's name (HDMI-1, DP-2), or --show"
                                        : "map: " + QuotedText(options.output) +
                                              " is not a monitor's name (HDMI-1, DP-2)");
    }
    if (!desktop) {
        std::string why;
        desktop = DetectDesktop(ProcessDesktopEnvironment(), &why);
        if (!desktop) throw CToolError(kCtlUsage, why);
    }
    const TFrameEntry frame = Frames(ctx, false).front();
    const std::vector<TTouchscreenId> devices = Touchscreens(ctx, frame, options.area);
    std::unique_ptr<IDesktopMapping> mapping = MakeDesktopMapping(*desktop, UserConfigHome());
    std::vector<std::string> notes;
    const TMonitorId monitor = mapping->Monitor(options.output, &notes);
    for (const std::string& note : notes) ctx.err << "irframectl: " << note << "\n";
    for (const TTouchscreenId& device : devices) mapping->Map(device, monitor, ctx.out);
    if (options.area) {
        ctx.out << "pointer: unchanged (with --area, the frame spans several monitors)\n";
    } else {
        MapPointer(ctx, options.output);
    }
    return kCtlOk;
}
