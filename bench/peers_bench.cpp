// The floor and the peers, measured in the same run as the operations: a new
// block plus memcpy of the page (what any pass that writes a new page must
// at least pay) and the same for ImageAnd's two pages, OpenCV's affine warp, Otsu threshold (after a conversion to
// gray on a colour page) and area resize, and Leptonica's 1-bit sampling
// rotation and quarter turn. scripts/bench-table divides each operation's
// median by these.
#include <opencv2/imgproc.hpp>

#include "pages.h"
#include "platform/global_memory.h"

#ifdef QUARVEL_HAVE_LEPTONICA
#include <leptonica/allheaders.h>
#endif

namespace {

// Both sides on one thread: OpenCV's own worker threads are turned off for
// the peers and for the operations built on OpenCV.
const int kOneThread = (cv::setNumThreads(0), 0);

void BM_Floor(benchmark::State &state) {
    HGLOBAL page = qbench::A4Page(static_cast<int>(state.range(0)));
    const std::size_t n = GlobalSize(page);
    const void *src = GlobalLock(page);
    for (auto _ : state) {
        HGLOBAL out = quarvel::AllocateBlock(n, false);
        std::memcpy(GlobalLock(out), src, n);
        GlobalUnlock(out);
        benchmark::DoNotOptimize(out);
        GlobalFree(out);
    }
    GlobalUnlock(page);
}
BENCHMARK(BM_Floor)->Arg(1)->Arg(8)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

// ImageAnd's memory floor: a new block that takes the AND of two pages
// (two pages read, one written; ImageAnd's own page 1 is written back only
// where the AND changes it, which on the benchmark's pages is nowhere).
void BM_FloorAnd(benchmark::State &state) {
    HGLOBAL page = qbench::A4Page(static_cast<int>(state.range(0)));
    HGLOBAL first = ConvertMode(page, static_cast<int>(state.range(0)), 128);
    const std::size_t n = GlobalSize(page) / 8;
    const auto *a = static_cast<const std::uint64_t *>(GlobalLock(first));
    const auto *b = static_cast<const std::uint64_t *>(GlobalLock(page));
    for (auto _ : state) {
        HGLOBAL out = quarvel::AllocateBlock(8 * n, false);
        auto *d = static_cast<std::uint64_t *>(GlobalLock(out));
        for (std::size_t i = 0; i < n; ++i) d[i] = a[i] & b[i];
        GlobalUnlock(out);
        benchmark::DoNotOptimize(out);
        GlobalFree(out);
    }
    GlobalUnlock(page);
    GlobalUnlock(first);
    GlobalFree(first);
}
BENCHMARK(BM_FloorAnd)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

// A Mat over the page's rows (no copy).
cv::Mat PageMat(HGLOBAL page, int bits) {
    auto *p = static_cast<std::uint8_t *>(GlobalLock(page));
    GlobalUnlock(page);
    const int w = qbench::PageWidth(), h = qbench::PageHeight();
    return cv::Mat(h, w, CV_8UC(bits / 8), p + 40 + (bits == 8 ? 1024 : 0), static_cast<std::size_t>((w * bits + 31) / 32 * 4));
}

void BM_PeerWarpAffine(benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0));
    const cv::Mat in = PageMat(qbench::A4Page(bits), bits);
    const cv::Mat m = cv::getRotationMatrix2D(cv::Point2f(in.cols / 2.0f, in.rows / 2.0f), 3.0, 1.0);
    for (auto _ : state) {
        cv::Mat out(in.size(), in.type());
        cv::warpAffine(in, out, m, out.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(255));
        benchmark::DoNotOptimize(out.data);
    }
}
BENCHMARK(BM_PeerWarpAffine)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

// On a colour page the fair peer converts it to gray first (cvtColor, as a
// caller of OpenCV must), then thresholds.
void BM_PeerOtsu(benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0));
    const cv::Mat in = PageMat(qbench::A4Page(bits), bits);
    for (auto _ : state) {
        cv::Mat gray, out;
        if (bits == 8) {
            gray = in;
        } else {
            cv::cvtColor(in, gray, cv::COLOR_BGR2GRAY);
        }
        benchmark::DoNotOptimize(cv::threshold(gray, out, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU));
    }
}
BENCHMARK(BM_PeerOtsu)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

// The size Thumbnail(page, 200, 200) gives.
void BM_PeerResizeArea(benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0));
    const cv::Mat in = PageMat(qbench::A4Page(bits), bits);
    const cv::Size size(in.cols * 200 / in.rows, 200);
    for (auto _ : state) {
        cv::Mat out;
        cv::resize(in, out, size, 0, 0, cv::INTER_AREA);
        benchmark::DoNotOptimize(out.data);
    }
}
BENCHMARK(BM_PeerResizeArea)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

// The sizes Resize(page, 1240, 1754) (half: whole cells) and
// Resize(page, 1000, 1415) (1000 x 1414 inside it: 2.48 times smaller) scale
// the page to.
void BM_PeerResizeHalf(benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0));
    const cv::Mat in = PageMat(qbench::A4Page(bits), bits);
    for (auto _ : state) {
        cv::Mat out;
        cv::resize(in, out, cv::Size(in.cols / 2, in.rows / 2), 0, 0, cv::INTER_AREA);
        benchmark::DoNotOptimize(out.data);
    }
}
BENCHMARK(BM_PeerResizeHalf)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_PeerResizeFit(benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0));
    const cv::Mat in = PageMat(qbench::A4Page(bits), bits);
    for (auto _ : state) {
        cv::Mat out;
        cv::resize(in, out, cv::Size(1000, in.rows * 1000 / in.cols), 0, 0, cv::INTER_AREA);
        benchmark::DoNotOptimize(out.data);
    }
}
BENCHMARK(BM_PeerResizeFit)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

#ifdef QUARVEL_HAVE_LEPTONICA
// The 1-bit page as a Leptonica image (32-bit words, most significant bit
// first).
PIX *BitonalPix() {
    setMsgSeverity(L_SEVERITY_ERROR);
    const int w = qbench::PageWidth(), h = qbench::PageHeight();
    PIX *pix = pixCreate(w, h, 1);
    const auto *rows = static_cast<const std::uint8_t *>(GlobalLock(qbench::A4Page(1))) + 48;
    const int stride = (w + 31) / 32 * 4;
    for (int y = 0; y < h; ++y)
        std::memcpy(reinterpret_cast<std::uint8_t *>(pixGetData(pix)) + static_cast<std::size_t>(y) * pixGetWpl(pix) * 4,
                    rows + static_cast<std::size_t>(h - 1 - y) * stride, static_cast<std::size_t>(stride));
    GlobalUnlock(qbench::A4Page(1));
    pixEndianByteSwap(pix);
    return pix;
}

void BM_PeerLeptRotate(benchmark::State &state) {
    PIX *pix = BitonalPix();
    for (auto _ : state) {
        PIX *out = pixRotate(pix, 3.0 * 3.14159265358979 / 180, L_ROTATE_SAMPLING, L_BRING_IN_WHITE, 0, 0);
        pixDestroy(&out);
    }
    pixDestroy(&pix);
}
BENCHMARK(BM_PeerLeptRotate)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_PeerLeptRotate90(benchmark::State &state) {
    PIX *pix = BitonalPix();
    for (auto _ : state) {
        PIX *out = pixRotate90(pix, 1);
        pixDestroy(&out);
    }
    pixDestroy(&pix);
}
BENCHMARK(BM_PeerLeptRotate90)->Arg(1)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
