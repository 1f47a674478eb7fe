// Page cleaning and composition on an A4 page at 300 dpi.
#include "pages.h"

namespace {

HGLOBAL Page(const benchmark::State &state) { return qbench::A4Page(static_cast<int>(state.range(0))); }

void BM_Denoise(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return Denoise(p, 3); });
}
BENCHMARK(BM_Denoise)->Arg(1)->Arg(8)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

void BM_DenoiseRect(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) {
        RECT r{100, 100, 2000, 3000};
        return DenoiseRect(p, &r, 3);
    });
}
BENCHMARK(BM_DenoiseRect)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_IsBlankPage(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(IsBlankPage(Page(state), 128));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * qbench::PixelBytes(Page(state))));
}
BENCHMARK(BM_IsBlankPage)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

HGLOBAL TheMark() {
    static HGLOBAL mark = Resize(qbench::A4Page(8), 600, 400);
    return mark;
}

void BM_AddWaterMark(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return AddWaterMark(p, TheMark()); });
}
BENCHMARK(BM_AddWaterMark)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_AddWaterMarkEx(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return AddWaterMarkEx(p, TheMark()); });
}
BENCHMARK(BM_AddWaterMarkEx)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_Combine(benchmark::State &state) {
    qbench::RunImageOp(state, Page(state), [](HGLOBAL p) { return Combine(p, p, 0); });
}
BENCHMARK(BM_Combine)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_CombineMixed(benchmark::State &state) {
    qbench::RunImageOp(state, qbench::A4Page(24), [](HGLOBAL p) { return Combine(p, qbench::A4Page(1), 1); });
}
BENCHMARK(BM_CombineMixed)->Unit(benchmark::kMillisecond);

}  // namespace
