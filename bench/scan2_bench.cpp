// The real-scan content steps on an A4 page at 300 dpi, decoded once:
// hole finding, blank and colour-mode judgements, binarisation by each
// method (Leptonica's Sauvola beside it when linked) and despeckling, each
// on one thread. Under load, read the CPU column.
#include <map>

#include "pages.h"
#include "scan/binarize.h"
#include "scan/scan.h"

#ifdef QUARVEL_HAVE_LEPTONICA
#include <leptonica/allheaders.h>
#endif

namespace {

using namespace quarvel::scan;

// One thread, as the budgets are set; restores OpenCV's own count after.
struct OneThread {
    int before = cv::getNumThreads();
    OneThread() { cv::setNumThreads(1); }
    ~OneThread() { cv::setNumThreads(before); }
};

const ScanPage &Decoded(int bits) {
    static std::map<int, ScanPage> pages;
    auto it = pages.find(bits);
    if (it == pages.end()) {
        ScanPage p;
        LoadScanPage(qbench::A4Page(bits), 300, &p);
        it = pages.emplace(bits, std::move(p)).first;
    }
    return it->second;
}

template <class F>
void RunOnPage(benchmark::State &state, F f) {
    const ScanPage &page = Decoded(static_cast<int>(state.range(0)));
    OneThread one;
    for (auto _ : state) f(page);
    state.SetItemsProcessed(state.iterations());
}

void BM_ScanFindHoles(benchmark::State &state) {
    RunOnPage(state, [](const ScanPage &p) {
        Sheet sheet;
        sheet.box = cv::Rect(0, 0, p.width, p.height);
        benchmark::DoNotOptimize(FindHoles(p, sheet));
    });
}
BENCHMARK(BM_ScanFindHoles)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_ScanJudgeBlank(benchmark::State &state) {
    RunOnPage(state, [](const ScanPage &p) {
        Analysis a;
        a.sheet.box = cv::Rect(0, 0, p.width, p.height);
        benchmark::DoNotOptimize(JudgeBlank(p, a));
    });
}
BENCHMARK(BM_ScanJudgeBlank)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_ScanJudgeContentMode(benchmark::State &state) {
    RunOnPage(state, [](const ScanPage &p) {
        Analysis a;
        a.sheet.box = cv::Rect(0, 0, p.width, p.height);
        benchmark::DoNotOptimize(JudgeContentMode(p, a));
    });
}
BENCHMARK(BM_ScanJudgeContentMode)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_ScanBinarize(benchmark::State &state) {
    const ScanPage &p = Decoded(8);
    const int method = static_cast<int>(state.range(0));
    OneThread one;
    for (auto _ : state) benchmark::DoNotOptimize(Binarize(p.gray, method, 0, 0, p.dpi));
}
BENCHMARK(BM_ScanBinarize)
    ->Arg(QUARVEL_BINARIZE_DEFAULT)
    ->Arg(QUARVEL_BINARIZE_SAUVOLA)
    ->Arg(QUARVEL_BINARIZE_WOLF)
    ->Arg(QUARVEL_BINARIZE_OTSU)
    ->Unit(benchmark::kMillisecond);

#ifdef QUARVEL_HAVE_LEPTONICA
void BM_LeptonicaSauvola(benchmark::State &state) {
    const ScanPage &p = Decoded(8);
    PIX *pix = pixCreate(p.width, p.height, 8);
    for (int y = 0; y < p.height; ++y) {
        l_uint32 *line = pixGetData(pix) + y * pixGetWpl(pix);
        for (int x = 0; x < p.width; ++x) SET_DATA_BYTE(line, x, p.gray.at<std::uint8_t>(y, x));
    }
    const int half = BinarizeWindow(p.dpi) / 2;
    for (auto _ : state) {
        PIX *out = nullptr;
        pixSauvolaBinarize(pix, half, 0.34f, 1, nullptr, nullptr, nullptr, &out);
        pixDestroy(&out);
    }
    pixDestroy(&pix);
}
BENCHMARK(BM_LeptonicaSauvola)->Unit(benchmark::kMillisecond);
#endif

void BM_ScanDespeckle(benchmark::State &state) {
    const ScanPage &p = Decoded(8);
    OneThread one;
    for (auto _ : state) {
        state.PauseTiming();
        cv::Mat g = p.gray.clone();
        state.ResumeTiming();
        Despeckle(&g, 0, p.dpi);
    }
}
BENCHMARK(BM_ScanDespeckle)->Unit(benchmark::kMillisecond);

}  // namespace
