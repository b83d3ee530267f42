#include "CTouchPointInfo.h"

#include <algorithm>
#include <cmath>

#include "CTouchPointDeal.h"

CTouchPointInfo::CTouchPointInfo() = default;

CTouchPointInfo::CTouchPointInfo(int id, float x, float y, int /*status*/, int /*cell*/,
                                 int64_t birthTime)
    : CTouchPoint(x, y, birthTime), id(id) {
    pointsPath.reserve(16);
    pointsPath.emplace_back(x, y, birthTime);
    m_count = 1;
}

void CTouchPointInfo::Update(float x, float y, int64_t birthTime) {
    const CTouchPoint sample(x, y, birthTime);
    if (m_count < kMaxPathSamples) {
        pointsPath.push_back(sample);
        ++m_count;
        return;
    }
    if (pointsPath.size() < 2 * kMaxPathSamples) {
        // First overflow: mirror the full path into the upper half once.
        pointsPath.resize(2 * kMaxPathSamples);
        std::copy(pointsPath.begin(), pointsPath.begin() + kMaxPathSamples,
                  pointsPath.begin() + kMaxPathSamples);
        m_head = 0;
    }
    // The oldest sample's slot (and its mirror) takes the new one; the window moves by one.
    pointsPath[m_head] = sample;
    pointsPath[m_head + kMaxPathSamples] = sample;
    m_head = (m_head + 1) % kMaxPathSamples;
}

void CTouchPointInfo::Remove() {
    // The storage is kept for the samples of the next gesture.
    pointsPath.clear();
    m_head = 0;
    m_count = 0;
}

const CTouchPoint* CTouchPointInfo::PathData() const { return pointsPath.data() + m_head; }

CTouchPointPath CTouchPointInfo::getPointsPath() const { return {PathData(), m_count}; }

std::vector<CTouchPoint> CTouchPointInfo::CopyPointsPath() const {
    const CTouchPointPath path = getPointsPath();
    return {path.begin(), path.end()};
}

float CTouchPointInfo::GetDistance() const {
    if (m_count < 2) return 0.0f;
    const CTouchPointPath path = getPointsPath();
    const float dx = path.front().x - path.back().x;
    const float dy = path.front().y - path.back().y;
    return std::sqrt(dx * dx + dy * dy);
}

int CTouchPointInfo::GetAngle() const {
    if (m_count < 2) return 0;
    const CTouchPointPath path = getPointsPath();
    const float dx = path.back().x - path.front().x;
    const float dy = path.back().y - path.front().y;
    const float r = std::sqrt(dx * dx + dy * dy);
    const float s = dy / r;  // 0/0 for a contact back where it started: NaN, kept
    float a = static_cast<float>(std::asin(static_cast<double>(s)) + 1.57);
    a = a * 180.0f;
    a = static_cast<float>(static_cast<double>(a) / 3.14);
    if (dx < 0) a = 360.0f - a;
    return TruncateToInt(a);
}

int CTouchPointInfo::GetMovingDirection(int angle) {
    return CTouchPointDeal::OneFignerMovingDirection(angle);
}

float CTouchPointInfo::GetFirstX() const { return m_count ? getPointsPath().front().x : 0.0f; }
float CTouchPointInfo::GetFisrtY() const { return m_count ? getPointsPath().front().y : 0.0f; }
float CTouchPointInfo::GetBehindX() const { return m_count ? getPointsPath().back().x : 0.0f; }
float CTouchPointInfo::GetBehindY() const { return m_count ? getPointsPath().back().y : 0.0f; }
