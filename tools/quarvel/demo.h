// `quarvel demo`: draws a scanned page, cleans it step by step and writes
// every step plus a labelled overview, then cleans real scans from the
// source tree and writes each before beside after.
#pragma once

#include <string>
#include <vector>

namespace qtool {

// One real scan as analysed and cleaned.
struct DemoScan {
    std::string file;
    double skew = 0, confidence = 0;
    int holes = 0, mode = 0;
    bool blank = false;
    int width = 0, height = 0, cleanWidth = 0, cleanHeight = 0;
};

struct DemoReport {
    double trueSkew = 0, foundSkew = 0;
    unsigned otsu = 0, ridcal = 0;
    int blankShare = 0, colourMode = 0;
    std::vector<DemoScan> scans;  // the real scans cleaned, in order
};

// The source tree's folder of real scans the demo cleans (compiled in).
std::string DemoScanFolder();

// Returns 0 on success; fills the report. Prints what it measured.
// Real scans come from `scans`; that part is skipped with a note when the
// folder is missing.
int RunDemo(const std::string &outDir, DemoReport *report, bool quiet = false,
            const std::string &scans = DemoScanFolder());

}  // namespace qtool
