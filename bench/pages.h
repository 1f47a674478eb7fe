// Benchmark pages: an A4 sheet at 300 dpi (2480 x 3508) in each depth, with
// text-like marks, built once per depth. QUARVEL_BENCH_SMALL=1 shrinks it to
// 248 x 351 for the smoke run in CI.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "quarvel/quarvel.h"

namespace qbench {

// The page of this depth, built on first use and kept for the process.
HGLOBAL A4Page(int bitCount);
// A4 sheet of this depth inside a dark scanner frame, skewed by a little.
HGLOBAL FramedPage(int bitCount);
int PageWidth();
int PageHeight();
// Bytes of the page's pixel rows.
std::size_t PixelBytes(HGLOBAL page);

// Runs `op` once per iteration, frees what it returns, and reports bytes of
// pixels processed per second.
template <class Op>
void RunImageOp(benchmark::State &state, HGLOBAL page, Op op) {
    for (auto _ : state) {
        HGLOBAL out = op(page);
        benchmark::DoNotOptimize(out);
        if (out != nullptr) GlobalFree(out);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * PixelBytes(page)));
}

}  // namespace qbench
