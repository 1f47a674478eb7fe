// Row kernels of colour enhancement: the colour-excess map and the
// enhancement rules (red, blue, darken, brighten), each with a plain twin,
// the oracle of the tests.
#pragma once

#include <cstdint>

namespace quarvel::kernels {

// The enhancement rules of one call. A pixel is red when redThreshold > 0,
// its R is at least 60 and its red excess at least redThreshold; else blue
// likewise (B, blue excess); else, with `tone`, dark when its level is below
// darkBelow, bright otherwise; else it is left alone. Each outcome adds
// delta[outcome][channel] (B, G, R) to the channels, clamped to 0..255.
struct EnhanceRule {
    int redThreshold, blueThreshold;
    long long darkBelow;
    bool tone;
    int delta[4][3];  // red, blue, darken, brighten; each -255..255
};

// For n colour pixels of `bpp` bytes (3 or 4): the excesses and level come
// from the pixel itself (R - max(G, B), B - max(G, R), B + G + R) or, with a
// map, from its pixel (red byte, blue byte, green byte); the R >= 60 and
// B >= 60 tests and the deltas always read `in`. Results go to `out` (which
// may be `in`); pixels left alone and fourth bytes keep out's bytes.
void EnhanceRow(const std::uint8_t *in, const std::uint8_t *map, std::uint8_t *out, int n, int bpp, const EnhanceRule &rule);

// In place over n colour pixels: blue byte max(B - max(G, R), 0), green
// byte (B + G + R) / 3, red byte max(R - max(G, B), 0); fourth bytes kept.
void ExcessMapRow(std::uint8_t *p, int n, int bpp);

namespace plain {
void EnhanceRow(const std::uint8_t *in, const std::uint8_t *map, std::uint8_t *out, int n, int bpp, const EnhanceRule &rule);
void ExcessMapRow(std::uint8_t *p, int n, int bpp);
}  // namespace plain

}  // namespace quarvel::kernels
