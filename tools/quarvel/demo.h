// `quarvel demo`: draws a scanned page, cleans it step by step and writes
// every step plus a labelled overview.
#pragma once

#include <string>

namespace qtool {

struct DemoReport {
    double trueSkew = 0, foundSkew = 0;
    unsigned otsu = 0, ridcal = 0;
    int blankShare = 0, colourMode = 0;
};

// Returns 0 on success; fills the report. Prints what it measured.
int RunDemo(const std::string &outDir, DemoReport *report, bool quiet = false);

}  // namespace qtool
