// Page analysis: every measurement in order, and the report record.
#include <algorithm>
#include <cstring>

#include "scan/scan.h"

namespace quarvel::scan {

Analysis AnalyzePage(const ScanPage &page, const QuarvelScanOptions &options) {
    Analysis a;
    a.sheet = FindSheet(page);
    a.holes = FindHoles(page, a.sheet);
    InkBlobs blobs;
    a.hasContent = FindContent(page, a.sheet, a.holes, &a.content, &blobs);
    a.skew = FindSkew(page, a.sheet, options.max_skew);
    a.orientation = FindOrientation(page, a.sheet, a.skew, options.max_skew, &blobs);
    // A page whose lines run down it is straightened by their skew: the
    // profile across such a page follows rules, edges and letter columns.
    if (a.orientation.vertical) a.skew = a.orientation.lines;
    a.blank = JudgeBlank(page, a);
    a.mode = JudgeContentMode(page, a);
    return a;
}

namespace {

RECT ToRect(const cv::Rect &r) {
    RECT out;
    out.left = r.x;
    out.top = r.y;
    out.right = r.x + r.width;
    out.bottom = r.y + r.height;
    return out;
}

}  // namespace

void FillReport(const ScanPage &page, const Analysis &a, QuarvelPageReport *report) {
    QuarvelPageReport r{};
    r.size = sizeof(QuarvelPageReport);
    r.usable = 1;
    r.width = page.width;
    r.height = page.height;
    r.dpi = page.dpi;
    constexpr int32_t kSources[] = {QUARVEL_DPI_GIVEN, QUARVEL_DPI_TAG, QUARVEL_DPI_TEXT, QUARVEL_DPI_SIZE};
    r.dpi_source = kSources[static_cast<int>(page.dpiSource)];
    r.skew_angle = a.skew.angle;
    r.skew_confidence = a.skew.confidence;
    r.orientation = a.orientation.angle;
    r.orientation_confidence = a.orientation.confidence;
    r.sheet = ToRect(a.sheet.box);
    r.frame_sides = a.sheet.sides;
    r.has_content = a.hasContent ? 1 : 0;
    r.content = a.hasContent ? ToRect(a.content) : RECT{0, 0, 0, 0};
    r.hole_count = static_cast<int32_t>(a.holes.size());
    const std::size_t listed = std::min<std::size_t>(a.holes.size(), QUARVEL_MAX_HOLES);
    for (std::size_t i = 0; i < listed; ++i) r.holes[i] = QuarvelHole{a.holes[i].cx, a.holes[i].cy, a.holes[i].r};
    r.blank = a.blank.blank ? 1 : 0;
    r.ink = a.blank.ink;
    r.mode = a.mode;
    // Only the bytes the caller's record holds.
    const std::size_t n = std::min<std::size_t>(report->size, sizeof(QuarvelPageReport));
    const std::uint32_t callerSize = report->size;
    std::memcpy(report, &r, n);
    report->size = callerSize;
}

}  // namespace quarvel::scan
