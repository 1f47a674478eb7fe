// Row histograms for the threshold and skew measurements, and the column
// sums of the reduced skew raster: byte levels, and
// colour pixels by their B + G + R sum. Runs of equal values (clipped paper,
// solid ink) are found 32 bytes or 8 pixels at a time and counted with one
// addition; everything else is counted one by one into interleaved tables
// (consecutive increments of one level would otherwise wait for each other).
// Each has a plain twin, the oracle of the tests.
#pragma once

#include <cstdint>

namespace quarvel::kernels {

// count[i % 4 or any table][level] += 1 for each of n bytes: the caller adds
// the four tables together.
void CountLevelsRow(const std::uint8_t *src, int n, std::uint32_t count[4][256]);
// sums[any table][B + G + R] += 1 for each of n colour pixels of `bpp` bytes
// (3 or 4); the caller adds the two tables together.
void CountSumsRow(const std::uint8_t *src, int n, int bpp, std::uint32_t sums[2][766]);

// Column sums of the reduced skew raster, 16 bits each (a block of at most
// 257 rows of levels cannot overflow them): col[x] += src[x], or 255 - src[x]
// with `complement`, for n bytes; and col[x] += one or zero as bit x of a
// packed row (most significant bit first) is set or not, for n bits.
void AddBytesRow(const std::uint8_t *src, int n, bool complement, std::uint16_t *col);
void AddBitsRow(const std::uint8_t *src, int n, std::uint8_t zero, std::uint8_t one, std::uint16_t *col);
// col[x] += 255 - (B + G + R) / 3 for n colour pixels of `bpp` bytes (3 or 4).
void AddColourInkRow(const std::uint8_t *src, int n, int bpp, std::uint16_t *col);

namespace plain {
void AddColourInkRow(const std::uint8_t *src, int n, int bpp, std::uint16_t *col);
void AddBytesRow(const std::uint8_t *src, int n, bool complement, std::uint16_t *col);
void AddBitsRow(const std::uint8_t *src, int n, std::uint8_t zero, std::uint8_t one, std::uint16_t *col);
void CountLevelsRow(const std::uint8_t *src, int n, std::uint32_t count[4][256]);
void CountSumsRow(const std::uint8_t *src, int n, int bpp, std::uint32_t sums[2][766]);
}  // namespace plain

}  // namespace quarvel::kernels
