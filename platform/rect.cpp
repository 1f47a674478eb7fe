#include "platform/rect.h"

#include <algorithm>
#include <limits>

namespace quarvel {

void SetRect(RECT *r, int left, int top, int right, int bottom) {
    r->left = left;
    r->top = top;
    r->right = right;
    r->bottom = bottom;
}

bool IsRectEmpty(const RECT *r) { return r == nullptr || r->right <= r->left || r->bottom <= r->top; }

bool IntersectRect(RECT *out, const RECT *a, const RECT *b) {
    RECT r{std::max(a->left, b->left), std::max(a->top, b->top), std::min(a->right, b->right),
           std::min(a->bottom, b->bottom)};
    if (IsRectEmpty(&r)) {
        SetRect(out, 0, 0, 0, 0);
        return false;
    }
    *out = r;
    return true;
}

RECT FlipRows(const RECT &r, int height) {
    const auto flip = [height](LONG v) {
        const long long f = static_cast<long long>(height) - v;
        return static_cast<LONG>(std::clamp<long long>(f, std::numeric_limits<LONG>::min(), std::numeric_limits<LONG>::max()));
    };
    return RECT{r.left, flip(r.bottom), r.right, flip(r.top)};
}

}  // namespace quarvel
