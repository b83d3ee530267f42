#include "LiveView.h"

#include <algorithm>

namespace {

// Well apart from each other and from the grey of "outside"; an area id picks one in turn.
constexpr TViewColour kAreaColours[] = {{0.90, 0.30, 0.10}, {0.10, 0.55, 0.85}, {0.20, 0.65, 0.20},
                                        {0.75, 0.20, 0.70}, {0.85, 0.65, 0.05}, {0.05, 0.60, 0.60}};
constexpr TViewColour kPanelColours[] = {{0.55, 0.30, 0.10}, {0.35, 0.25, 0.75},
                                         {0.70, 0.10, 0.30}, {0.30, 0.45, 0.10}};
constexpr TViewColour kOutside{0.45, 0.45, 0.45};
constexpr TViewColour kDefault{0.15, 0.35, 0.80};
constexpr double kFullScale = 32767.0;  // normalised units of a shape's centre and axes

TViewPoint NormalisedToView(double x, double y) { return {1.0 - x / kFullScale, y / kFullScale}; }

void ShapeCorners(const _HC_POINT16& c, const _HC_POINT16& h, const _HC_POINT16& v,
                  TViewPoint* corners) {
    const int signs[4][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}};
    for (int i = 0; i < 4; ++i) {
        corners[i] = NormalisedToView(c.x + signs[i][0] * h.x + signs[i][1] * v.x,
                                      c.y + signs[i][0] * h.y + signs[i][1] * v.y);
    }
}

}  // namespace

TViewColour PlaceColour(const TContactPlace& place) {
    const size_t index = place.index < 0 ? 0 : static_cast<size_t>(place.index);
    if (place.kind == "area") return kAreaColours[index % std::size(kAreaColours)];
    if (place.kind == "panel") return kPanelColours[index % std::size(kPanelColours)];
    if (place.kind == "default") return kDefault;
    return kOutside;
}

TViewColour ContactColour(const TMonitoredContact& contact, const _HARDWARE_DEV_CONFIG& config) {
    return PlaceColour(PlaceOf(contact, config));
}

TViewFit FitFrame(const TFrameEntry& frame, double width, double height, double margin) {
    double aspect = 16.0 / 9.0;
    if (frame.logicalWidth > 0 && frame.logicalHeight > 0) {
        aspect = double(frame.logicalWidth) / frame.logicalHeight;
    } else if (frame.rawWidth > 0 && frame.rawHeight > 0) {
        aspect = double(frame.rawWidth) / frame.rawHeight;
    }
    const double roomW = std::max(1.0, width - 2 * margin);
    const double roomH = std::max(1.0, height - 2 * margin);
    TViewFit fit;
    fit.aspect = aspect;
    fit.width = std::min(roomW, roomH * aspect);
    fit.height = fit.width / aspect;
    fit.scale = fit.width;
    fit.left = (width - fit.width) / 2;
    fit.top = (height - fit.height) / 2;
    return fit;
}

std::vector<TViewShape> ConfigShapes(const _HARDWARE_DEV_CONFIG& config) {
    std::vector<TViewShape> shapes;
    if ((config.flags & DEV_FLAG_AREAS_ENABLED) != 0) {
        for (int i = 0; i < std::min<int>(config.areaCount, DEV_CONFIG_MAX_AREAS); ++i) {
            const _HCRECT_CONFIG_FILE& a = config.areas[i];
            TViewShape s;
            s.id = a.id;
            s.colour = PlaceColour({"area", a.id});
            ShapeCorners(a.center, a.axisH, a.axisV, s.corners);
            shapes.push_back(s);
        }
    }
    if ((config.flags & DEV_FLAG_PANELS_ENABLED) != 0) {
        for (int i = 0; i < std::min<int>(config.panelCount, DEV_CONFIG_MAX_PANELS); ++i) {
            const _HBRECT_CONFIG_FILE& p = config.panels[i];
            if (p.width < 50 || p.height < 50) continue;  // the driver does not use it either
            TViewShape s;
            s.panel = true;
            s.id = p.id;
            s.colour = PlaceColour({"panel", p.id});
            ShapeCorners(p.center, p.axisH, p.axisV, s.corners);
            shapes.push_back(s);
        }
    }
    return shapes;
}

TViewPoint RawToView(const TFrameEntry& frame, uint16_t rawX, uint16_t rawY) {
    if (frame.rawWidth < 1 || frame.rawHeight < 1) return {0.5, 0.5};
    return {1.0 - double(rawX) / frame.rawWidth, double(rawY) / frame.rawHeight};
}

void CLiveView::SetFrame(const TFrameEntry& frame, const _HARDWARE_DEV_CONFIG& config) {
    Clear();
    ++m_generation;
    m_frame = frame;
    m_config = config;
    m_shapes = ConfigShapes(config);
}

void CLiveView::Clear() {
    m_contacts.clear();
    m_trails.clear();
    m_trailColours.clear();
    m_arrivals.clear();
}

void CLiveView::OnFrame(const TMonitoredFrame& frame, int64_t micros) {
    m_arrivals.push_back(micros);
    m_contacts.clear();
    for (const TMonitoredContact& c : frame.contacts) {
        if (c.retired || c.status >= 2) continue;
        TViewContact v;
        v.id = c.id;
        v.at = RawToView(m_frame, c.rawX, c.rawY);
        const TContactPlace place = PlaceOf(c, m_config);
        v.colour = PlaceColour(place);
        v.place = place.kind + (place.index >= 0 ? " " + std::to_string(place.index) : "");
        m_contacts.push_back(v);
        // A new trail only while there is room; the ids come from the frame, 0..255.
        auto it = m_trails.find(v.id);
        if (it == m_trails.end()) {
            if (m_trails.size() >= kMaxTrails) continue;
            it = m_trails.emplace(v.id, std::deque<TTrailPoint>{}).first;
        }
        it->second.push_back({v.at, micros});
        if (it->second.size() > kMaxTrailPoints) it->second.pop_front();
        m_trailColours[v.id] = v.colour;
    }
    Expire(micros);
}

void CLiveView::Expire(int64_t micros) {
    while (!m_arrivals.empty() && m_arrivals.front() <= micros - 1'000'000) m_arrivals.pop_front();
    for (auto it = m_trails.begin(); it != m_trails.end();) {
        auto& points = it->second;
        while (!points.empty() && points.front().micros < micros - kTrailMicros) points.pop_front();
        if (points.empty()) {
            m_trailColours.erase(it->first);
            it = m_trails.erase(it);
        } else {
            ++it;
        }
    }
}
