// Border and hole removal on an A4 page at 300 dpi inside a dark frame.
#include "pages.h"

namespace {

HGLOBAL Framed(const benchmark::State &state) { return qbench::FramedPage(static_cast<int>(state.range(0))); }

void BM_RemoveBorder(benchmark::State &state) {
    qbench::RunImageOp(state, Framed(state), [](HGLOBAL p) { return RemoveBorder(p, 100, 0, 0); });
}
BENCHMARK(BM_RemoveBorder)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_RemoveBorder1(benchmark::State &state) {
    qbench::RunImageOp(state, Framed(state), [](HGLOBAL p) { return RemoveBorder1(p, 100, 0, 0, 0); });
}
BENCHMARK(BM_RemoveBorder1)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_RemoveBorderGpy(benchmark::State &state) {
    qbench::RunImageOp(state, Framed(state), [](HGLOBAL p) { return RemoveBorder_GPY(p, 100); });
}
BENCHMARK(BM_RemoveBorderGpy)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_RemoveBorderFill(benchmark::State &state) {
    qbench::RunImageOp(state, Framed(state), [](HGLOBAL p) { return RemoveBorder_Fill(p, 100); });
}
BENCHMARK(BM_RemoveBorderFill)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_RemoveHole(benchmark::State &state) {
    qbench::RunImageOp(state, Framed(state),
                       [](HGLOBAL p) { return RemoveHole(p, TRUE, TRUE, TRUE, TRUE, 200, 1, 6, 40, 140, 0.5); });
}
BENCHMARK(BM_RemoveHole)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

}  // namespace
