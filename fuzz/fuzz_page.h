// Pages and checks shared by the fuzz targets: a packed DIB built from fuzz
// input (header fields, table, rows and block size all chosen by the input,
// mostly well-formed and small), snapshots of blocks, and the invariants every
// target asserts (abort on violation, so libFuzzer reports the input).
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <vector>

#include "quarvel/quarvel.h"
#include "support/operations.h"

namespace qfuzz {

// Pages of at most this many pixels a side when well-formed; headers may
// still claim any size over a small block.
constexpr int kMaxSide = 256;

// A block holding a page (or a header that only pretends to be one). `like`,
// when not null, is a page whose header the new one copies (same width,
// height and depth) most of the time, so two-page operations get pages that
// match.
HGLOBAL MakePage(FuzzedDataProvider &in, HGLOBAL like = nullptr);

// An int argument: small values, values near the ends of int, or any value.
int Argument(FuzzedDataProvider &in);
double AngleArgument(FuzzedDataProvider &in);

std::vector<std::uint8_t> Bytes(HGLOBAL h);

// Prints an operation's arguments and page headers to stderr (replaying a
// reproducer with QFUZZ_VERBOSE set).
void Describe(const char *name, const qtest::OpArgs &a);

// Aborts with a message when `ok` is false.
void Require(bool ok, const char *what, const char *name = "");

}  // namespace qfuzz
