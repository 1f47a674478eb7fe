// Page measurements on an A4 page at 300 dpi: each reads the whole page once
// (copy and decode), then works on the raster.
#include "pages.h"

namespace {

template <class F>
void RunMeasure(benchmark::State &state, F measure) {
    HGLOBAL page = qbench::A4Page(static_cast<int>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(measure(page));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * qbench::PixelBytes(page)));
}

void BM_GetBinaryThresholdByOtsu(benchmark::State &state) { RunMeasure(state, GetBinaryThresholdByOtsu); }
BENCHMARK(BM_GetBinaryThresholdByOtsu)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_GetBinaryThresholdByRidCal(benchmark::State &state) { RunMeasure(state, GetBinaryThresholdByRidCal); }
BENCHMARK(BM_GetBinaryThresholdByRidCal)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_GetObliquity(benchmark::State &state) { RunMeasure(state, GetObliquity); }
BENCHMARK(BM_GetObliquity)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_TestPrecision(benchmark::State &state) {
    RunMeasure(state, [](HGLOBAL page) {
        double h = 0, v = 0;
        return TestPrecision(page, 300, &h, &v);
    });
}
BENCHMARK(BM_TestPrecision)->Arg(1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

}  // namespace
