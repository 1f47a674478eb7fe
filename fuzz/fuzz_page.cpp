// Fuzz pages: the header is drawn field by field, each field well-formed
// most of the time and anything some of the time, so the checks of the frame
// see every way a header can lie while operations still get real pages.
#include "fuzz_page.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace qfuzz {

namespace {

// A 256 x 256 page of 32 bits with slack: larger headers get short blocks.
constexpr std::size_t kMaxBlock = 300 * 1024;

int Depth(FuzzedDataProvider &in) {
    static const int kUsual[] = {1, 8, 24, 32, 1, 8, 24, 32, 4, 16, 2, 0};
    const std::uint8_t pick = in.ConsumeIntegral<std::uint8_t>();
    if (pick < 250) return kUsual[pick % (sizeof kUsual / sizeof kUsual[0])];
    return in.ConsumeIntegral<std::uint16_t>();
}

std::int32_t Side(FuzzedDataProvider &in) {
    const std::uint8_t pick = in.ConsumeIntegral<std::uint8_t>();
    if (pick < 240) return in.ConsumeIntegralInRange<std::int32_t>(1, kMaxSide);
    if (pick < 248) return in.ConsumeIntegral<std::int32_t>();
    static const std::int32_t kOdd[] = {0, -1, INT_MIN, INT_MAX, 1 << 16, 46341, 2147483434, 1113637592};
    return kOdd[pick % 8];
}

}  // namespace

HGLOBAL MakePage(FuzzedDataProvider &in, HGLOBAL like) {
    BITMAPINFOHEADER h{};
    h.biSize = 40;
    h.biPlanes = 1;
    const auto *model = static_cast<const BITMAPINFOHEADER *>(like != nullptr ? GlobalLock(like) : nullptr);
    if (model != nullptr && GlobalSize(like) >= sizeof h && in.ConsumeIntegral<std::uint8_t>() < 200) {
        h.biWidth = model->biWidth;
        h.biHeight = model->biHeight;
        h.biBitCount = in.ConsumeBool() ? model->biBitCount : static_cast<WORD>(Depth(in));
    } else {
        h.biWidth = Side(in);
        h.biHeight = Side(in);
        h.biBitCount = static_cast<WORD>(Depth(in));
    }
    if (model != nullptr) GlobalUnlock(like);
    // Rarely used fields get odd values now and then.
    const std::uint8_t odd = in.ConsumeIntegral<std::uint8_t>();
    if (odd >= 230) h.biClrUsed = in.ConsumeBool() ? in.ConsumeIntegralInRange<std::uint32_t>(0, 300)
                                                   : in.ConsumeIntegral<std::uint32_t>();
    if (odd >= 245) h.biCompression = in.ConsumeIntegralInRange<std::uint32_t>(0, 6);
    if (odd >= 250) h.biSize = in.ConsumeIntegral<std::uint32_t>() % 200;
    h.biXPelsPerMeter = h.biYPelsPerMeter = 11811;

    // The size the page needs, in 64 bits; the block is that size (cut to
    // kMaxBlock) most of the time, or a little shorter or longer.
    std::uint64_t colors = h.biClrUsed;
    if (colors == 0 && h.biBitCount <= 8) colors = std::uint64_t{1} << h.biBitCount;
    const std::int64_t w = h.biWidth, ht = h.biHeight;
    const std::uint64_t stride = w > 0 ? static_cast<std::uint64_t>((w * h.biBitCount + 31) / 32 * 4) : 0;
    const std::uint64_t rows = ht > 0 && stride < (std::uint64_t{1} << 40) ? stride * static_cast<std::uint64_t>(ht) : 0;
    std::uint64_t size = 40 + 4 * std::min<std::uint64_t>(colors, 1 << 16) + rows;
    const std::uint8_t fit = in.ConsumeIntegral<std::uint8_t>();
    if (fit >= 220) size = size - std::min<std::uint64_t>(size, in.ConsumeIntegralInRange<std::uint64_t>(1, 64));
    else if (fit >= 200) size += in.ConsumeIntegralInRange<std::uint64_t>(1, 64);
    else if (fit >= 195) size = in.ConsumeIntegralInRange<std::uint64_t>(0, 64);
    size = std::min<std::uint64_t>(size, kMaxBlock);

    HGLOBAL block = GlobalAlloc(GHND, static_cast<SIZE_T>(size));
    auto *p = static_cast<std::uint8_t *>(GlobalLock(block));
    if (p == nullptr) return block;  // an empty block
    std::memcpy(p, &h, std::min<std::size_t>(sizeof h, size));
    // The table: a gray ramp (black first) or white first, or bytes of the
    // input; then the rows from the input, repeated.
    const std::uint8_t tableKind = in.ConsumeIntegral<std::uint8_t>();
    const std::size_t tableBytes = std::min<std::uint64_t>(4 * std::min<std::uint64_t>(colors, 1 << 16), size > 40 ? size - 40 : 0);
    for (std::size_t i = 0; i + 4 <= tableBytes; i += 4) {
        const std::size_t n = colors > 1 ? colors - 1 : 1;
        auto v = static_cast<std::uint8_t>(i / 4 * 255 / n);
        if (tableKind & 1) v = static_cast<std::uint8_t>(255 - v);
        p[40 + i] = p[41 + i] = p[42 + i] = v;
    }
    if (tableKind >= 200 && tableBytes > 0) {
        const std::vector<std::uint8_t> t = in.ConsumeBytes<std::uint8_t>(tableBytes);
        if (!t.empty()) std::memcpy(p + 40, t.data(), t.size());
    }
    const std::size_t start = std::min<std::size_t>(40 + tableBytes, size);
    const std::vector<std::uint8_t> pixels =
        in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange<std::size_t>(0, 4096));
    if (!pixels.empty()) {
        for (std::size_t i = start; i < size; ++i) p[i] = pixels[(i - start) % pixels.size()];
    } else {
        const std::uint8_t v = in.ConsumeIntegral<std::uint8_t>();
        std::memset(p + start, v, size - start);
    }
    GlobalUnlock(block);
    return block;
}

int Argument(FuzzedDataProvider &in) {
    const std::uint8_t pick = in.ConsumeIntegral<std::uint8_t>();
    if (pick < 160) return in.ConsumeIntegralInRange<int>(-20, 300);
    if (pick < 200) return in.ConsumeIntegralInRange<int>(-1000, 1000);
    if (pick < 230) {
        static const int kEnds[] = {INT_MIN, INT_MIN + 1, INT_MAX, INT_MAX - 1, -255, 255, 256, -256};
        return kEnds[pick % 8];
    }
    return in.ConsumeIntegral<int>();
}

double AngleArgument(FuzzedDataProvider &in) {
    const std::uint8_t pick = in.ConsumeIntegral<std::uint8_t>();
    if (pick < 200) return in.ConsumeFloatingPointInRange<double>(-400.0, 400.0);
    static const double kOdd[] = {std::numeric_limits<double>::quiet_NaN(), HUGE_VAL, -HUGE_VAL, 1e300, -1e300,
                                  4.9e-324, 90.0, -270.0};
    if (pick < 240) return kOdd[pick % 8];
    return in.ConsumeFloatingPoint<double>();
}

std::vector<std::uint8_t> Bytes(HGLOBAL h) {
    const auto *p = static_cast<const std::uint8_t *>(GlobalLock(h));
    if (p == nullptr) return {};
    std::vector<std::uint8_t> out(p, p + GlobalSize(h));
    GlobalUnlock(h);
    return out;
}

void Describe(const char *name, const qtest::OpArgs &a) {
    std::fprintf(stderr, "%s i={", name);
    for (int v : a.i) std::fprintf(stderr, "%d,", v);
    std::fprintf(stderr, "} rect=%s{%d,%d,%d,%d} d=%.17g\n", a.nullRect ? "null" : "", a.rect.left, a.rect.top,
                 a.rect.right, a.rect.bottom, a.d);
    for (HGLOBAL h : {a.page, a.second, a.third}) {
        const auto *hd = static_cast<const BITMAPINFOHEADER *>(GlobalLock(h));
        if (hd == nullptr) {
            std::fprintf(stderr, "  page: none\n");
            continue;
        }
        if (GlobalSize(h) >= sizeof *hd)
            std::fprintf(stderr, "  page: %zu bytes, %d x %d, %d bits, clrUsed %u, compression %u, biSize %u\n",
                         static_cast<std::size_t>(GlobalSize(h)), hd->biWidth, hd->biHeight, hd->biBitCount,
                         hd->biClrUsed, hd->biCompression, hd->biSize);
        GlobalUnlock(h);
    }
}

void Require(bool ok, const char *what, const char *name) {
    if (ok) return;
    std::fprintf(stderr, "fuzz check failed: %s %s\n", what, name);
    std::abort();
}

}  // namespace qfuzz
