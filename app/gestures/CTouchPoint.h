// One timed sample of a contact's position.
#pragma once

#include <cstdint>

class CTouchPoint {
public:
    CTouchPoint() = default;  // fields left unset
    CTouchPoint(float x, float y, int64_t birthTime) : x(x), y(y), birthTime(birthTime) {}

    float GetX() const { return x; }
    float GetY() const { return y; }
    int64_t GetBirthTime() const { return birthTime; }

    bool operator==(const CTouchPoint&) const = default;

    float x;            // absolute output units, 1..32766
    float y;            // same units, growing downward
    int64_t birthTime;  // frame stamp: seconds * 4,000,000 + microseconds
};
