// Tone, text effect, fill, arithmetic, conversion and resize on an A4 page
// at 300 dpi, at the depths each takes.
#include "pages.h"

namespace {

HGLOBAL Page(const benchmark::State &state) { return qbench::A4Page(static_cast<int>(state.range(0))); }

void BM_AdjustBrightness(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return AdjustBrightness(p, 20); });
}
BENCHMARK(BM_AdjustBrightness)->Arg(8)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

void BM_AdjustContrast(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return AdjustContrast(p, 30); });
}
BENCHMARK(BM_AdjustContrast)->Arg(8)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

void BM_AdjustBrightnessAndContrast(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return AdjustBrightnessAndContrast(p, 20, 30); });
}
BENCHMARK(BM_AdjustBrightnessAndContrast)->Arg(8)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

void BM_TextEffect(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return TextEffect(p, 1); });
}
BENCHMARK(BM_TextEffect)->Arg(1)->Arg(8)->Unit(benchmark::kMillisecond);

void BM_TextEffectRect(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) {
        RECT r{100, 100, 2000, 3000};
        return TextEffectRect(p, &r, -1);
    });
}
BENCHMARK(BM_TextEffectRect)->Arg(1)->Arg(8)->Unit(benchmark::kMillisecond);

void BM_Fill(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) {
        RECT r{100, 100, 2000, 3000};
        return Fill(p, &r, 255);
    });
}
BENCHMARK(BM_Fill)->Arg(1)->Arg(8)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

void BM_FillOutside(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) {
        RECT r{100, 100, 2000, 3000};
        return FillOutside(p, &r, 255);
    });
}
BENCHMARK(BM_FillOutside)->Arg(1)->Arg(8)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

void BM_ImageOr(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return ImageOr(p, p, 0, 0, 0, 0, 2480, 3508); });
}
BENCHMARK(BM_ImageOr)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_ImageAnd(benchmark::State &state) {
    // The first page is written: work on a copy made once.
    HGLOBAL first = ConvertMode(Page(state), static_cast<int>(state.range(0)), 128);
    qbench::RunImageOp(state, Page(state), [first](HGLOBAL p) { return ImageAnd(first, p, 0, 0, 0, 0, 2480, 3508); });
    GlobalFree(first);
}
BENCHMARK(BM_ImageAnd)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_GetLess(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return GetLess(p, p); });
}
BENCHMARK(BM_GetLess)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_ConvertModeTo1(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return ConvertMode(p, 1, 128); });
}
BENCHMARK(BM_ConvertModeTo1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_ConvertModeTo8(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return ConvertMode(p, 8, 128); });
}
BENCHMARK(BM_ConvertModeTo8)->Arg(1)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

void BM_ConvertModeTo24(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return ConvertMode(p, 24, 128); });
}
BENCHMARK(BM_ConvertModeTo24)->Arg(1)->Arg(8)->Arg(32)->Unit(benchmark::kMillisecond);

void BM_ConvertModeToGrayEx(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return ConvertModeToGrayEx(p, 50, 50); });
}
BENCHMARK(BM_ConvertModeToGrayEx)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

void BM_Thumbnail(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return Thumbnail(p, 200, 200); });
}
BENCHMARK(BM_Thumbnail)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_Resize(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return Resize(p, 1240, 1754); });
}
BENCHMARK(BM_Resize)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

// A reduction by 2.48, not by whole cells.
void BM_ResizeFit(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return Resize(p, 1000, 1415); });
}
BENCHMARK(BM_ResizeFit)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

}  // namespace
