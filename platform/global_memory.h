// The library's own door into global memory.
#pragma once

#include <cstddef>

#include "quarvel/win32.h"

namespace quarvel {

// GlobalAlloc without the zero fill, for a block whose every byte the caller
// is about to write: a result block filled straight from a page. With
// `zeroed` it is GlobalAlloc.
HGLOBAL AllocateBlock(std::size_t bytes, bool zeroed);

// Blocks allocated and not yet freed, for tests and fuzz targets that check
// an operation leaves none behind.
std::size_t LiveBlockCount();

}  // namespace quarvel
