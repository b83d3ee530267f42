// What the live view shows of one frame, without GTK: the frame's outline to scale, its
// calibration areas and button panels where they lie on it, and each contact as a dot with its
// id and a fading trail, coloured by the area or panel that took it.
//
// Positions are in view units: the frame's surface seen from the front, 0..1 on both axes
// (raw X runs right to left, so it is mirrored). Time is whatever clock the caller passes, in
// microseconds; nothing here reads a clock.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "FrameAccess.h"
#include "Present.h"

struct TViewPoint {
    double x = 0;
    double y = 0;
};

struct TViewColour {
    double r = 0, g = 0, b = 0;
    bool operator==(const TViewColour&) const = default;
};

// An area or a panel: the parallelogram centre ± half-axes, corners in drawing order.
struct TViewShape {
    bool panel = false;
    int id = 0;
    TViewPoint corners[4];
    TViewColour colour;
};

struct TViewContact {
    int id = 0;
    TViewPoint at;
    TViewColour colour;
    std::string place;  // "area 1", "panel 2", "outside", "default"
};

// One point of a trail and when it was there.
struct TTrailPoint {
    TViewPoint at;
    int64_t micros = 0;
};

// Where the frame lies in a widget: view unit -> pixels.
struct TViewFit {
    double scale = 1;  // pixels per view unit along X; along Y it is scale / aspect
    double aspect = 1;
    double left = 0, top = 0, width = 0, height = 0;
    TViewPoint Pixel(TViewPoint p) const { return {left + p.x * width, top + p.y * height}; }
};

// The colour of what took a contact: one per area id, one per panel id, grey outside.
TViewColour PlaceColour(const TContactPlace& place);
// The colour of a contact on the frame with `config`.
TViewColour ContactColour(const TMonitoredContact& contact, const _HARDWARE_DEV_CONFIG& config);

// The frame in a widget of `width` x `height` pixels with `margin` pixels around: as large as
// fits, centred, with the frame's aspect (logical size; raw size when that is unknown).
TViewFit FitFrame(const TFrameEntry& frame, double width, double height, double margin);

// The areas (when the frame uses them) and panels (when in use, at least 50 x 50) of `config`.
std::vector<TViewShape> ConfigShapes(const _HARDWARE_DEV_CONFIG& config);

// A contact's raw position in view units; {0.5, 0.5} while the raw size is unknown.
TViewPoint RawToView(const TFrameEntry& frame, uint16_t rawX, uint16_t rawY);

class CLiveView {
public:
    // Trails keep this long, and at most this many points each, so memory stays bounded
    // however long the view runs.
    static constexpr int64_t kTrailMicros = 700'000;
    static constexpr size_t kMaxTrailPoints = 48;
    static constexpr size_t kMaxTrails = 64;

    void SetFrame(const TFrameEntry& frame, const _HARDWARE_DEV_CONFIG& config);
    void Clear();

    // A polled frame arrived at `micros`.
    void OnFrame(const TMonitoredFrame& frame, int64_t micros);
    // Drops what has faded by `micros`.
    void Expire(int64_t micros);

    const TFrameEntry& Frame() const { return m_frame; }
    // Changes with every SetFrame: what is drawn of the frame itself may have changed.
    int Generation() const { return m_generation; }
    const std::vector<TViewShape>& Shapes() const { return m_shapes; }
    // The contacts down in the last frame, in its order.
    const std::vector<TViewContact>& Contacts() const { return m_contacts; }
    // Every trail by contact id, the latest point last; a lifted contact's trail stays until
    // it fades.
    const std::map<int, std::deque<TTrailPoint>>& Trails() const { return m_trails; }
    const std::map<int, TViewColour>& TrailColours() const { return m_trailColours; }
    // Frames received in the last second before the latest.
    int FrameRate() const { return static_cast<int>(m_arrivals.size()); }

private:
    TFrameEntry m_frame;
    int m_generation = 0;
    _HARDWARE_DEV_CONFIG m_config{};
    std::vector<TViewShape> m_shapes;
    std::vector<TViewContact> m_contacts;
    std::map<int, std::deque<TTrailPoint>> m_trails;
    std::map<int, TViewColour> m_trailColours;
    std::deque<int64_t> m_arrivals;
};
