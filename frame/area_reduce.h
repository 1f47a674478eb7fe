// The super-sampled (area) reduction by factors that are not both whole,
// computed so that every output byte equals OpenCV's INTER_AREA result for
// the same sizes, several times faster (see area_reduce.cpp).
#pragma once

#include <cstddef>
#include <cstdint>

namespace quarvel {

// Rows of a reduction's source: 8-bit samples, `channels` (1, 3 or 4) per
// pixel; or, with bitX >= 0, packed 1-bit pixels (most significant bit
// first) from bit bitX of each row on, read as the gray levels `zero` and
// `one` (channels 1).
struct AreaSource {
    const std::uint8_t *data = nullptr;  // stored row 0
    std::ptrdiff_t step = 0;             // bytes from one row to the next
    int width = 0, height = 0;           // pixels
    int channels = 1;
    int bitX = -1;
    std::uint8_t zero = 0, one = 255;
};

// Whether AreaReduce runs here for a reduction of srcW x srcH pixels to
// outW x outH: a reduction on both axes, not by whole factors on both (OpenCV
// averages whole cells on its own, exactly, and fast), on a processor with
// AVX2.
bool AreaReduceCovers(int srcW, int srcH, int outW, int outH);

// Writes the w x h corner (w <= outW, h <= outH) of the reduction of `src`
// to outW x outH into rows of `dst` (8-bit samples, src.channels per pixel)
// `dstStep` bytes apart. False, with nothing written, where it does not
// cover the case (the caller resizes through OpenCV then).
bool AreaReduce(const AreaSource &src, int outW, int outH, std::uint8_t *dst, std::ptrdiff_t dstStep, int w, int h);

// Whether AreaHalve runs here: a reduction of srcW x srcH pixels to exactly
// half on both axes, at 1, 3 or 4 channels, on a processor with AVX2.
bool AreaHalveCovers(int srcW, int srcH, int outW, int outH, int channels);
// Writes the w x h corner of the halved `src` (8-bit samples) as AreaReduce
// does, with OpenCV's bytes for that case: each 2 x 2 cell's sum plus 2,
// over 4. False, with nothing written, where it does not cover the case.
bool AreaHalve(const AreaSource &src, std::uint8_t *dst, std::ptrdiff_t dstStep, int w, int h);

// Turns the fast reductions off (AreaReduce and AreaHalve then always answer
// false) or on; returns the previous setting. For tests and benchmarks.
bool UseAreaReduce(bool on);

}  // namespace quarvel
