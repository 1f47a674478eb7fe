// Every exported operation behind one call shape, for the suites that sweep
// them all (extreme arguments, threads) and for the fuzz targets: a table of
// names and calls that unpack one argument record.
#pragma once

#include <cstddef>

#include "quarvel/quarvel.h"

namespace qtest {

// Arguments of any operation. Pages: `page` is the operated page; `second`
// is the second page (ImageAnd/Or, GetLess, watermarks, Combine, the gray page
// of ConvertHongTou, the map of EnhanceColorEx, the base of EnhanceColorEx1);
// `third` the map of EnhanceColorEx1. A rectangle is passed by pointer to a
// copy, or null when `nullRect`.
struct OpArgs {
    HGLOBAL page = nullptr;
    HGLOBAL second = nullptr;
    HGLOBAL third = nullptr;
    RECT rect{0, 0, 0, 0};
    bool nullRect = false;
    int i[10] = {};
    double d = 0.0;
};

// An image result (caller frees) or a measurement.
struct OpResult {
    HGLOBAL page = nullptr;
    double value = 0.0;
};

struct Operation {
    const char *name;
    bool image;        // returns a page
    bool writesFirst;  // ImageAnd also writes its first page
    OpResult (*call)(const OpArgs &);
};

extern const Operation kOperations[];
extern const std::size_t kOperationCount;

// A result an operation may hand out: a live block holding a bottom-up,
// uncompressed page of 1, 8, 24 or 32 bits, its whole table and rows. (The
// colour operations also hand back unchanged copies of pages of other
// depths.)
bool WellFormedPage(HGLOBAL h);

}  // namespace qtest
