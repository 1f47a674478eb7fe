// Every exported operation through the C ABI on fuzzed pages and arguments.
// Checked after each call: the caller's blocks are unchanged (ImageAnd's
// first page excepted), a result is NULL, a well-formed page or an unchanged
// copy of an input (as the colour operations give for pages below 24 bits),
// and every block the call allocated is freed again (the live-block count
// returns to where it was).
#include <cstdlib>

#include "fuzz_page.h"
#include "platform/global_memory.h"
#include "support/operations.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const std::size_t before = quarvel::LiveBlockCount();
    const qtest::Operation &op =
        qtest::kOperations[in.ConsumeIntegralInRange<std::size_t>(0, qtest::kOperationCount - 1)];
    qtest::OpArgs a;
    for (int &v : a.i) v = qfuzz::Argument(in);
    a.rect = RECT{qfuzz::Argument(in), qfuzz::Argument(in), qfuzz::Argument(in), qfuzz::Argument(in)};
    a.nullRect = in.ConsumeIntegral<std::uint8_t>() >= 240;
    a.d = in.ConsumeBool() ? qfuzz::AngleArgument(in) : in.ConsumeFloatingPointInRange<double>(-0.5, 1.5);
    a.page = qfuzz::MakePage(in);
    a.second = in.ConsumeIntegral<std::uint8_t>() < 240 ? qfuzz::MakePage(in, a.page) : nullptr;
    a.third = in.ConsumeIntegral<std::uint8_t>() < 200 ? qfuzz::MakePage(in, a.page) : nullptr;
    const auto page = qfuzz::Bytes(a.page), second = qfuzz::Bytes(a.second), third = qfuzz::Bytes(a.third);
    if (std::getenv("QFUZZ_VERBOSE") != nullptr) qfuzz::Describe(op.name, a);

    const qtest::OpResult r = op.call(a);

    qfuzz::Require(op.writesFirst || qfuzz::Bytes(a.page) == page, "changed its page:", op.name);
    qfuzz::Require(qfuzz::Bytes(a.second) == second, "changed its second page:", op.name);
    qfuzz::Require(qfuzz::Bytes(a.third) == third, "changed its third page:", op.name);
    qfuzz::Require(op.image || r.page == nullptr, "measurement returned a page:", op.name);
    if (r.page != nullptr) {
        const auto bytes = qfuzz::Bytes(r.page);
        qfuzz::Require(qtest::WellFormedPage(r.page) || bytes == page || bytes == second,
                       "returned a malformed page that is no copy of its input:", op.name);
        GlobalFree(r.page);
    }
    for (HGLOBAL h : {a.page, a.second, a.third})
        if (h != nullptr) GlobalFree(h);
    qfuzz::Require(quarvel::LiveBlockCount() == before, "left blocks allocated:", op.name);
    return 0;
}
