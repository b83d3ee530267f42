// One tracked contact: its device id and the path of its samples, oldest first.
//
// The path keeps at most 500 samples; when full, each new sample drops the oldest. The samples
// live in a mirrored ring (every sample is stored twice, half a buffer apart), so the newest 500
// are always one contiguous run: appending costs the same at any path length and reading the
// path needs no copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "CTouchPoint.h"

// A read-only view of a contact's path, oldest sample first. It stays valid until the contact's
// next Update or Remove (ClearTouchPointLists removes); copy it with CopyPointsPath to keep it.
using CTouchPointPath = std::span<const CTouchPoint>;

class CTouchPointInfo : public CTouchPoint {
public:
    static constexpr size_t kMaxPathSamples = 500;

    CTouchPointInfo();  // base unset, empty path, id 0
    // status and cell are accepted and not used: the device's status says nothing the path
    // does not, and the area a contact started in does not change its gesture.
    CTouchPointInfo(int id, float x, float y, int status, int cell, int64_t birthTime);

    // Appends a sample; with 500 samples already held, the oldest is dropped.
    void Update(float x, float y, int64_t birthTime);
    // Empties the path. The id and the first sample (the base) stay; the contact stays usable.
    void Remove();

    CTouchPointPath getPointsPath() const;
    std::vector<CTouchPoint> CopyPointsPath() const;
    size_t PathSize() const { return m_count; }
    bool PathEmpty() const { return m_count == 0; }

    int GetID() const { return id; }
    // Displacement between the first and the latest sample (not the length of the path).
    float GetDistance() const;
    // Bearing of that displacement in whole degrees, clockwise from "up the screen".
    int GetAngle() const;
    // Direction code 6..13 of a bearing; reads nothing of the contact.
    static int GetMovingDirection(int angle);
    // First and latest sample; 0.0 for an empty path.
    float GetFirstX() const;
    float GetFisrtY() const;
    float GetBehindX() const;
    float GetBehindY() const;

private:
    const CTouchPoint* PathData() const;

    // Below kMaxPathSamples samples the path is pointsPath[0, m_count). Once full, pointsPath
    // holds 2 * kMaxPathSamples entries, slot i mirrored at i + kMaxPathSamples, and the path is
    // pointsPath[m_head, m_head + kMaxPathSamples).
    std::vector<CTouchPoint> pointsPath;
    size_t m_head = 0;
    size_t m_count = 0;
    int id = 0;
};

// The worker's tracked list and the lists the gesture container is handed.
using CTouchPointList = std::vector<CTouchPointInfo*>;
