// Every operation from several threads at once, each thread on its own
// pages: every result equals the one computed on one thread before (so no
// operation keeps state a concurrent call could change, the contrast tables
// included), and large blocks allocated and freed from all threads through
// the spare-block cache come back zero-filled and never shared. `make
// check-tsan` runs this suite under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "support/operations.h"
#include "support/pages.h"

namespace {

using qtest::Block;
using qtest::OpArgs;

constexpr int kThreads = 4;

Block Drawn(int bits, int seed) {
    return qtest::MakePageWith(qtest::Shape(64, 48, bits), [bits, seed](int x, int y, int c) {
        if (bits == 1) return (x / 4 + y / 3 + seed) % 4 == 0 ? 0 : 1;
        return x < 5 || y < 4 ? 15 : (x * 5 + y * 9 + c * 60 + seed * 31) % 256;
    });
}

OpArgs Typical() {
    OpArgs a;
    const int values[10] = {2, 10, 1, 3, 1, 40, 2, 30, 40, 30};
    std::copy(values, values + 10, a.i);
    a.rect = RECT{2, 3, 50, 40};
    a.d = 3.0;
    return a;
}

struct Outcome {
    std::vector<std::uint8_t> bytes;
    double value = 0.0;
    bool operator==(const Outcome &o) const { return bytes == o.bytes && value == o.value; }
};

// Runs operation k on the thread's pages (a fresh first page for ImageAnd).
Outcome RunOperation(std::size_t k, int bits, int seed) {
    const qtest::Operation &op = qtest::kOperations[k];
    Block page = Drawn(bits, seed), second = Drawn(bits, seed + 1), map = Drawn(bits, seed + 2);
    OpArgs a = Typical();
    a.page = page.get();
    a.second = second.get();
    a.third = map.get();
    const qtest::OpResult r = op.call(a);
    Block result(r.page);
    Outcome o{result ? result.bytes() : std::vector<std::uint8_t>{}, r.value};
    if (op.writesFirst) {
        const auto written = page.bytes();
        o.bytes.insert(o.bytes.end(), written.begin(), written.end());
    }
    return o;
}

TEST(Threads, EveryOperationGivesItsSingleThreadedResult) {
    const int depths[kThreads] = {1, 8, 24, 32};
    std::vector<std::vector<Outcome>> expected(kThreads);
    for (int t = 0; t < kThreads; ++t)
        for (std::size_t k = 0; k < qtest::kOperationCount; ++k) expected[t].push_back(RunOperation(k, depths[t], t));

    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 2; ++round)
                for (std::size_t k = 0; k < qtest::kOperationCount; ++k)
                    if (!(RunOperation(k, depths[t], t) == expected[t][k])) ++mismatches;
        });
    for (std::thread &th : threads) th.join();
    EXPECT_EQ(mismatches.load(), 0);
}

TEST(Threads, BlockCacheHandsEachBufferToOneBlock) {
    std::atomic<int> faults{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 16; ++round) {
                // Sizes from 1 to 6 MiB, so buffers are kept, reused and displaced.
                const std::size_t size = (std::size_t{1} << 20) * (1 + (round + t) % 6);
                HGLOBAL h = GlobalAlloc(GHND, size);
                auto *p = static_cast<unsigned char *>(GlobalLock(h));
                if (p == nullptr) {
                    ++faults;
                    continue;
                }
                for (std::size_t i = 0; i < size; i += 4096) faults += p[i] != 0;
                std::memset(p, 0x40 + t, size);
                std::this_thread::yield();
                for (std::size_t i = 0; i < size; i += 4096) faults += p[i] != 0x40 + t;
                GlobalUnlock(h);
                GlobalFree(h);
            }
        });
    for (std::thread &th : threads) th.join();
    EXPECT_EQ(faults.load(), 0);
}

}  // namespace
