// Exports of the real-scan layer (quarvel/scan.h).
#include <cstddef>

#include "exports/export.h"
#include "quarvel/scan.h"
#include "scan/scan.h"

using quarvel::Guarded;
namespace scan = quarvel::scan;

namespace {

void MarkUnusable(QuarvelPageReport *report) {
    if (report == nullptr || report->size < offsetof(QuarvelPageReport, usable) + sizeof(report->usable)) return;
    report->usable = 0;
}

}  // namespace

extern "C" {

int QUARVEL_CALL QuarvelScanVersion(void) { return QUARVEL_SCAN_VERSION; }

void QUARVEL_CALL QuarvelDefaultOptions(QuarvelScanOptions *options) {
    if (options == nullptr) return;
    *options = scan::ResolveOptions(nullptr);
}

int QUARVEL_CALL QuarvelAnalyzePage(HGLOBAL page, const QuarvelScanOptions *options, QuarvelPageReport *report) {
    if (report == nullptr) return 0;
    MarkUnusable(report);
    return Guarded<int>(0, [&] {
        const QuarvelScanOptions o = scan::ResolveOptions(options);
        scan::ScanPage p;
        if (!scan::LoadScanPage(page, o.dpi, &p, scan::kReadReduced)) return 0;
        scan::FillReport(p, scan::AnalyzePage(p, o), report);
        return 1;
    });
}

HGLOBAL QUARVEL_CALL QuarvelCleanPage(HGLOBAL page, const QuarvelScanOptions *options, QuarvelPageReport *report) {
    MarkUnusable(report);
    return Guarded<HGLOBAL>(nullptr, [&]() -> HGLOBAL {
        const QuarvelScanOptions o = scan::ResolveOptions(options);
        scan::ScanPage p;
        if (!scan::LoadScanPage(page, o.dpi, &p)) return nullptr;
        scan::Analysis a;
        HGLOBAL out = scan::CleanPage(p, o, &a);
        if (out != nullptr && report != nullptr) scan::FillReport(p, a, report);
        return out;
    });
}

HGLOBAL QUARVEL_CALL QuarvelBinarizePage(HGLOBAL page, const QuarvelScanOptions *options) {
    return Guarded<HGLOBAL>(nullptr, [&]() -> HGLOBAL {
        const QuarvelScanOptions o = scan::ResolveOptions(options);
        scan::ScanPage p;
        if (!scan::LoadScanPage(page, o.dpi, &p, scan::kReadWhole)) return nullptr;
        if (scan::DpiWantsText(p)) scan::PrepareReduced(&p);  // a doubtful resolution checked against the text
        return scan::MakeBitonalPage(scan::Binarize(p.gray, o.binarize_method, o.binarize_window, o.binarize_k, p.dpi), p);
    });
}

}  // extern "C"
