// The real-scan API on fuzzed pages and fuzzed option and report records,
// whose size fields may be smaller or larger than the structs. Checked: the
// page is unchanged, results are well-formed pages, a report is written only
// within the bytes its size field covers (guard bytes past it stay), and no
// block is left allocated.
#include <algorithm>
#include <cstring>
#include <vector>

#include "fuzz_page.h"
#include "platform/global_memory.h"
#include "quarvel/scan.h"
#include "support/operations.h"

namespace {

std::uint32_t RecordSize(FuzzedDataProvider &in, std::size_t full) {
    const std::uint8_t pick = in.ConsumeIntegral<std::uint8_t>();
    if (pick < 160) return static_cast<std::uint32_t>(full);
    if (pick < 200) return in.ConsumeIntegralInRange<std::uint32_t>(0, static_cast<std::uint32_t>(full));
    if (pick < 240) return static_cast<std::uint32_t>(full) + in.ConsumeIntegralInRange<std::uint32_t>(1, 64);
    return in.ConsumeIntegralInRange<std::uint32_t>(0, 4);
}

constexpr std::uint8_t kGuard = 0xA5;
constexpr std::size_t kSlack = 64;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const std::size_t before = quarvel::LiveBlockCount();

    // Options: a buffer of exactly the claimed size (at least the size field),
    // its bytes from the input over the defaults.
    const std::uint32_t optionsSize = RecordSize(in, sizeof(QuarvelScanOptions));
    std::vector<std::uint8_t> options(std::max<std::size_t>(optionsSize, sizeof(std::uint32_t)));
    QuarvelScanOptions defaults;
    QuarvelDefaultOptions(&defaults);
    std::memcpy(options.data(), &defaults, std::min(options.size(), sizeof defaults));
    if (in.ConsumeBool()) {
        const auto raw = in.ConsumeBytes<std::uint8_t>(options.size());
        if (!raw.empty()) std::memcpy(options.data(), raw.data(), raw.size());
    } else if (options.size() >= sizeof defaults) {
        auto *o = reinterpret_cast<QuarvelScanOptions *>(options.data());
        o->steps = in.ConsumeIntegral<std::uint32_t>();
        o->dpi = qfuzz::Argument(in);
        o->max_skew = qfuzz::AngleArgument(in);
        o->min_skew_confidence = in.ConsumeFloatingPointInRange<double>(-1.0, 2.0);
        o->margin = qfuzz::Argument(in);
        o->binarize_method = qfuzz::Argument(in);
        o->binarize_window = qfuzz::Argument(in);
        o->binarize_k = qfuzz::AngleArgument(in);
        o->speck_size = qfuzz::Argument(in);
    }
    std::memcpy(options.data(), &optionsSize, sizeof optionsSize);
    const bool noOptions = in.ConsumeIntegral<std::uint8_t>() >= 230;
    const auto *opts = noOptions ? nullptr : reinterpret_cast<const QuarvelScanOptions *>(options.data());

    // The report: the claimed size, then guard bytes to the end of the buffer.
    const std::uint32_t reportSize = RecordSize(in, sizeof(QuarvelPageReport));
    const std::size_t written = std::min<std::size_t>(std::max<std::size_t>(reportSize, 4), sizeof(QuarvelPageReport));
    std::vector<std::uint8_t> report(std::max<std::size_t>(reportSize, sizeof(QuarvelPageReport)) + kSlack, kGuard);
    std::memcpy(report.data(), &reportSize, sizeof reportSize);
    auto *rep = reinterpret_cast<QuarvelPageReport *>(report.data());

    HGLOBAL page = qfuzz::MakePage(in);
    const auto pageBytes = qfuzz::Bytes(page);
    const std::uint8_t call = in.ConsumeIntegralInRange<std::uint8_t>(0, 2);
    HGLOBAL result = nullptr;
    if (call == 0) {
        QuarvelAnalyzePage(page, opts, in.ConsumeIntegral<std::uint8_t>() >= 240 ? nullptr : rep);
    } else if (call == 1) {
        result = QuarvelCleanPage(page, opts, in.ConsumeBool() ? rep : nullptr);
    } else {
        result = QuarvelBinarizePage(page, opts);
    }
    qfuzz::Require(qfuzz::Bytes(page) == pageBytes, "changed its page");
    qfuzz::Require(std::all_of(report.begin() + static_cast<std::ptrdiff_t>(written), report.end(),
                               [](std::uint8_t b) { return b == kGuard; }),
                   "wrote past the report's size");
    if (result != nullptr) {
        qfuzz::Require(qtest::WellFormedPage(result), "returned a malformed page");
        GlobalFree(result);
    }
    GlobalFree(page);
    qfuzz::Require(quarvel::LiveBlockCount() == before, "left blocks allocated");
    return 0;
}
