// Rounding shared by the operations that turn measured doubles into pixel
// positions.
#pragma once

#include <climits>

namespace quarvel {

// The nearest integer, halves away from zero: x + 0.5 truncated for x >= 0,
// x - 0.5 truncated below 0 (2.5 gives 3, -2.5 gives -3). Values beyond the
// int range, and NaN, saturate instead of overflowing (NaN gives 0).
inline int RoundToInt(double x) {
    if (!(x == x)) return 0;
    if (x >= 0) {
        const double r = x + 0.5;
        return r >= static_cast<double>(INT_MAX) ? INT_MAX : static_cast<int>(r);
    }
    const double r = x - 0.5;
    return r <= static_cast<double>(INT_MIN) ? INT_MIN : static_cast<int>(r);
}

}  // namespace quarvel
