// Exact arithmetic form of a contrast table, for the tone operations.
//
// A contrast table stretches or compresses the levels about a pivot p: a level
// p + x (x > 0) goes to p + floor(x * up / 65536) and a level p - x to
// p - floor(x * down / 65536), each clamped to 0..255; brightness is a
// saturating add before it. FitToneLine finds the two multipliers a table
// obeys, ToneRow applies them 16 or 32 bytes a step with 16-bit multiplies
// (no table lookups), and plain::ToneRow is its oracle.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quarvel::kernels {

struct ToneLine {
    int brightness;         // saturating add first, clamped to -255..255
    int pivot;              // 0..255
    std::uint32_t up, down; // multipliers over 65536, each below 128 * 65536
};

// True when table[p + x] and table[p - x] obey the line about `pivot` for
// every x (with `brightness` 0); fills `line`. The caller still compares the
// line with its folded table over all 256 inputs (ToneLineMatches).
bool FitToneLine(const std::uint8_t table[256], int pivot, ToneLine *line);
// True when plain::ToneRow over the 256 levels gives `table`.
bool ToneLineMatches(const ToneLine &line, const std::uint8_t table[256]);

// dst[i] = the line at src[i] for n bytes; with `keepFourth`, over 4-byte
// pixels whose fourth byte is copied unchanged (n counts bytes).
void ToneRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const ToneLine &line, bool keepFourth);

namespace plain {
void ToneRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const ToneLine &line, bool keepFourth);
}  // namespace plain

}  // namespace quarvel::kernels
