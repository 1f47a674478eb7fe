// Geometry on an A4 page at 300 dpi. Rotate by 3 degrees with linear
// interpolation is shown beside OpenCV's own affine warp of the same 8-bit
// page, the kernel it is built on.
#include <opencv2/imgproc.hpp>

#include "pages.h"

namespace {

void BM_WarpAffineOpenCV(benchmark::State &state) {
    HGLOBAL page = qbench::A4Page(8);
    auto *bits = static_cast<std::uint8_t *>(GlobalLock(page)) + 40 + 1024;
    const int w = qbench::PageWidth(), h = qbench::PageHeight();
    cv::Mat in(h, w, CV_8UC1, bits, static_cast<std::size_t>((w + 3) / 4 * 4));
    cv::Mat out(h, w, CV_8UC1);
    const cv::Mat m = cv::getRotationMatrix2D(cv::Point2f(w / 2.0f, h / 2.0f), 3.0, 1.0);
    for (auto _ : state) {
        out.setTo(255);
        cv::warpAffine(in, out, m, out.size(), cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
        benchmark::ClobberMemory();
    }
    GlobalUnlock(page);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * qbench::PixelBytes(page)));
}
BENCHMARK(BM_WarpAffineOpenCV)->Unit(benchmark::kMillisecond);

void BM_Rotate(benchmark::State &state) {
    const int w = qbench::PageWidth(), h = qbench::PageHeight();
    qbench::RunImageOp(state, qbench::A4Page(static_cast<int>(state.range(0))),
                       [=](HGLOBAL p) { return Rotate(p, 3.0, w / 2, h / 2, 1); });
}
BENCHMARK(BM_Rotate)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_RotateEx(benchmark::State &state) {
    const int w = qbench::PageWidth(), h = qbench::PageHeight();
    qbench::RunImageOp(state, qbench::A4Page(static_cast<int>(state.range(0))),
                       [=](HGLOBAL p) { return RotateEx(p, 3.0, w / 2, h / 2, 1); });
}
BENCHMARK(BM_RotateEx)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_RotateEx1(benchmark::State &state) {
    const int w = qbench::PageWidth(), h = qbench::PageHeight();
    qbench::RunImageOp(state, qbench::A4Page(static_cast<int>(state.range(0))),
                       [=](HGLOBAL p) { return RotateEx1(p, 3.0, w / 2, h / 2, 1); });
}
BENCHMARK(BM_RotateEx1)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_RotateExpand90(benchmark::State &state) {
    qbench::RunImageOp(state, qbench::A4Page(static_cast<int>(state.range(0))),
                       [](HGLOBAL p) { return RotateExpand(p, 90.0, 0, 0, 0); });
}
BENCHMARK(BM_RotateExpand90)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_CropContent(benchmark::State &state) {
    qbench::RunImageOp(state, qbench::A4Page(static_cast<int>(state.range(0))), [](HGLOBAL p) {
        RECT r{0, 0, 0, 0};
        return Crop(p, &r, 2, 10);
    });
}
BENCHMARK(BM_CropContent)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

}  // namespace
