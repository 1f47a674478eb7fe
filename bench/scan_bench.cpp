// The real-scan layer on an A4 page at 300 dpi: analysis (decoding included)
// and the default clean, on the plain page and on the page skewed inside a
// dark frame, beside the skew measures of the specified layer
// (GetObliquity, skew_bench.cpp) and, when linked, Leptonica's
// sweep-and-search on the same page thresholded (conversion not timed).
#include "pages.h"

#include "quarvel/scan.h"

#ifdef QUARVEL_HAVE_LEPTONICA
#include <leptonica/allheaders.h>
#endif

namespace {

HGLOBAL PageFor(const benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0));
    return state.range(1) ? qbench::FramedPage(bits) : qbench::A4Page(bits);
}

void BM_QuarvelAnalyzePage(benchmark::State &state) {
    HGLOBAL page = PageFor(state);
    for (auto _ : state) {
        QuarvelPageReport r{};
        r.size = sizeof r;
        benchmark::DoNotOptimize(QuarvelAnalyzePage(page, nullptr, &r));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * qbench::PixelBytes(page)));
}
BENCHMARK(BM_QuarvelAnalyzePage)->Args({1, 0})->Args({8, 0})->Args({24, 0})->Args({8, 1})->Unit(benchmark::kMillisecond);

void BM_QuarvelCleanPage(benchmark::State &state) {
    qbench::RunImageOp(state, PageFor(state), [](HGLOBAL page) { return QuarvelCleanPage(page, nullptr, nullptr); });
}
BENCHMARK(BM_QuarvelCleanPage)->Args({1, 0})->Args({8, 0})->Args({24, 0})->Args({8, 1})->Unit(benchmark::kMillisecond);

#ifdef QUARVEL_HAVE_LEPTONICA
void BM_LeptonicaSkewSweepAndSearch(benchmark::State &state) {
    HGLOBAL page = PageFor(state);
    const auto *h = static_cast<const BITMAPINFOHEADER *>(GlobalLock(page));
    const int w = h->biWidth, ht = h->biHeight;
    const std::size_t stride = (static_cast<std::size_t>(w) + 3) / 4 * 4;
    const auto *rows = reinterpret_cast<const std::uint8_t *>(h) + h->biSize + 4 * (h->biClrUsed ? h->biClrUsed : 256);
    PIX *gray = pixCreate(w, ht, 8);
    for (int y = 0; y < ht; ++y)
        for (int x = 0; x < w; ++x) pixSetPixel(gray, x, ht - 1 - y, rows[stride * y + x]);
    GlobalUnlock(page);
    PIX *bin = pixThresholdToBinary(gray, 128);
    for (auto _ : state) {
        l_float32 angle = 0, conf = 0;
        benchmark::DoNotOptimize(pixFindSkewSweepAndSearch(bin, &angle, &conf, 4, 2, 7.0f, 1.0f, 0.01f));
    }
    pixDestroy(&bin);
    pixDestroy(&gray);
}
BENCHMARK(BM_LeptonicaSkewSweepAndSearch)->Args({8, 0})->Args({8, 1})->Unit(benchmark::kMillisecond);
#endif

}  // namespace
