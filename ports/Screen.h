// The main screen, as the workers ask for it.
//
// A backend answers with the frame of the main screen in points (the Linux backend: the primary
// XRandR output, or a size given on the command line, or a default), or with nothing when there
// is no screen at all. Called from worker threads: implementations must be thread-safe.
#pragma once

#include <optional>

struct TScreenRect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    bool operator==(const TScreenRect&) const = default;
};

class IScreen {
public:
    virtual ~IScreen() = default;
    virtual std::optional<TScreenRect> MainScreenFrame() const = 0;
};
