// Colour operations on an A4 24-bit page at 300 dpi.
#include "pages.h"

namespace {

HGLOBAL Page() { return qbench::A4Page(24); }

HGLOBAL GrayPage() { return qbench::A4Page(8); }

void BM_JudgeColorModeScan(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(JudgeColorMode(Page(), -1));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * qbench::PixelBytes(Page())));
}
BENCHMARK(BM_JudgeColorModeScan)->Unit(benchmark::kMillisecond);

void BM_JudgeColorModeDensity(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(JudgeColorMode(Page(), 10));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * qbench::PixelBytes(Page())));
}
BENCHMARK(BM_JudgeColorModeDensity)->Unit(benchmark::kMillisecond);

void BM_ConvertHongTou(benchmark::State &state) {
    qbench::RunImageOp(state, Page(), [](HGLOBAL p) { return ConvertHongTou(p, GrayPage(), 0, 0, 0, 60); });
}
BENCHMARK(BM_ConvertHongTou)->Unit(benchmark::kMillisecond);

void BM_ConvertHongTouEx(benchmark::State &state) {
    qbench::RunImageOp(state, Page(), [](HGLOBAL p) { return ConvertHongTouEx(p, GrayPage(), 0, 0, 0, 60, 80); });
}
BENCHMARK(BM_ConvertHongTouEx)->Unit(benchmark::kMillisecond);

void BM_EnhanceColor(benchmark::State &state) {
    qbench::RunImageOp(state, Page(), [](HGLOBAL p) { return EnhanceColor(p, nullptr, 128, 20, 20, 40, 30, 40, 30); });
}
BENCHMARK(BM_EnhanceColor)->Unit(benchmark::kMillisecond);

void BM_EnhanceColorExMap(benchmark::State &state) {
    qbench::RunImageOp(state, Page(), [](HGLOBAL p) { return EnhanceColorEx(p, nullptr, nullptr, 0, 0, 0, 0, 0, 0, 0); });
}
BENCHMARK(BM_EnhanceColorExMap)->Unit(benchmark::kMillisecond);

void BM_EnhanceColorExApply(benchmark::State &state) {
    HGLOBAL map = EnhanceColorEx(Page(), nullptr, nullptr, 0, 0, 0, 0, 0, 0, 0);
    qbench::RunImageOp(state, Page(),
                       [map](HGLOBAL p) { return EnhanceColorEx(p, map, nullptr, 128, 20, 20, 40, 30, 40, 30); });
    GlobalFree(map);
}
BENCHMARK(BM_EnhanceColorExApply)->Unit(benchmark::kMillisecond);

void BM_EnhanceColorEx1(benchmark::State &state) {
    HGLOBAL map = EnhanceColorEx(Page(), nullptr, nullptr, 0, 0, 0, 0, 0, 0, 0);
    qbench::RunImageOp(state, Page(), [map](HGLOBAL p) {
        return EnhanceColorEx1(p, p, map, nullptr, 128, 20, 20, 40, -255, 40, 30);
    });
    GlobalFree(map);
}
BENCHMARK(BM_EnhanceColorEx1)->Unit(benchmark::kMillisecond);

void BM_DeColorize(benchmark::State &state) {
    qbench::RunImageOp(state, Page(), [](HGLOBAL p) { return DeColorize(p, nullptr, 50, 50, 50); });
}
BENCHMARK(BM_DeColorize)->Unit(benchmark::kMillisecond);

}  // namespace
