// Whole-page pixel operations on an A4 page at 300 dpi, beside memcpy of the
// same pixel bytes (the floor for any pass that writes a new page).
#include <cstring>
#include <vector>

#include "pages.h"

namespace {

void BM_Memcpy(benchmark::State &state) {
    HGLOBAL page = qbench::A4Page(static_cast<int>(state.range(0)));
    const std::size_t n = qbench::PixelBytes(page);
    std::vector<std::uint8_t> src(n, 1), dst(n);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), n);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * n));
}
BENCHMARK(BM_Memcpy)->Arg(1)->Arg(8)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

void BM_Mirror(benchmark::State &state) {
    qbench::RunImageOp(state, qbench::A4Page(static_cast<int>(state.range(0))), Mirror);
}
BENCHMARK(BM_Mirror)->Arg(1)->Arg(8)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

void BM_Flip(benchmark::State &state) {
    qbench::RunImageOp(state, qbench::A4Page(static_cast<int>(state.range(0))), Flip);
}
BENCHMARK(BM_Flip)->Arg(1)->Arg(8)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

void BM_Invert(benchmark::State &state) {
    qbench::RunImageOp(state, qbench::A4Page(static_cast<int>(state.range(0))), Invert);
}
BENCHMARK(BM_Invert)->Arg(1)->Arg(8)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

}  // namespace
