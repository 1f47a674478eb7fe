// Shared by the export files: the public header built with default
// visibility for its declarations, and the guard that keeps exceptions
// inside the library.
#pragma once

#ifndef QUARVEL_BUILDING
#define QUARVEL_BUILDING 1
#endif
#include "quarvel/quarvel.h"

#include "frame/view.h"
