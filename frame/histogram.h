// Histograms for the threshold and skew measurements (byte levels, and
// colour pixels by their B + G + R sum) and the column sums of the reduced
// skew raster. Runs of equal values (clipped paper, solid ink) are found 32
// bytes or 8-16 pixels at a time and counted with one addition; other levels
// by pairs of neighbours, other colour sums one by one into two tables in
// turn (consecutive increments of one entry would otherwise wait for each
// other). Each kernel has a plain twin, the oracle of the tests.
#pragma once

#include <cstdint>
#include <memory>

namespace quarvel::kernels {

// Byte levels of many rows. A run of 32 equal bytes is counted with one
// addition; any other 32 bytes as sixteen pairs of neighbours, each pair one
// increment of a 65536-entry table (two tables in turn, so a pair repeated
// next to itself does not wait for its own count), split into its two
// levels once at the end. Half the increments of a byte-by-byte count, on
// tables whose used entries stay in the first-level cache for a page whose
// levels cluster (paper, ink). Without the tables (`pairs` false, or when
// their 512 KB cannot be had) every byte is counted on its own.
class LevelCounter {
public:
    explicit LevelCounter(bool pairs);
    LevelCounter(const LevelCounter &) = delete;
    LevelCounter &operator=(const LevelCounter &) = delete;
    void AddRow(const std::uint8_t *src, int n);
    // count[level] += the bytes of that level added so far.
    void AddTo(std::uint32_t count[256]) const;

private:
    std::unique_ptr<std::uint32_t[]> pairs_;  // two tables; index = first byte | second byte << 8
    std::uint32_t single_[256] = {};
};
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
void CountLevels(const std::uint8_t *src, int n, std::uint32_t count[256]);
void CountSumsRow(const std::uint8_t *src, int n, int bpp, std::uint32_t sums[2][766]);
}  // namespace plain

}  // namespace quarvel::kernels
