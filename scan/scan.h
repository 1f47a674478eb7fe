// The real-scan layer's analyses and cleaning steps, over a decoded page
// (scan/page.h). Boxes and points are in page pixels as displayed: x to the
// right, y down from the top, right and bottom exclusive.
//
// The analyses run in this order, each seeing what came before:
// sheet -> holes -> content -> skew -> orientation -> blank -> mode.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

#include "scan/page.h"

namespace quarvel::scan {

struct Sheet {
    cv::Rect box;        // the paper; the whole page when no frame was found
    unsigned sides = 0;  // QUARVEL_SIDE_* where a frame was found
    cv::Mat paper;       // CV_8UC1 at the page's reduced scale: 255 on the sheet, 0 on the frame
    int paperLevel = 255; // gray level of the paper
};

struct Hole {
    double cx = 0, cy = 0, r = 0;
};

struct Skew {
    double angle = 0;       // degrees, positive: lines fall toward the right as displayed
    double confidence = 0;  // 0..1
    double rise = 0;        // how far the best profile's score stands above the sweep's median, over that median
    int lines = 0;          // text lines in the best profile
};

struct Orientation {
    int angle = 0;          // 0, 90, 180, 270: the clockwise turn that makes the page upright
    double confidence = 0;
    bool vertical = false;  // the lines run down the page
    Skew lines;             // their skew when they do (the turn that straightens the page, as Skew::angle)
};

// The blobs FindContent found on the page's ink, for a later analysis that
// labels the same image: kept only when the ink was not masked by a frame.
struct InkBlobs {
    cv::Rect area;  // the part of the page's ink (reduced pixels) labelled
    cv::Mat stats;  // LabelBlobs statistics; empty when not kept
    int count = 0;
};

struct Blank {
    bool blank = false;
    double ink = 0;         // fraction of the sheet covered by content ink
};

struct Analysis {
    Sheet sheet;
    std::vector<Hole> holes;
    bool hasContent = false;
    cv::Rect content;
    Skew skew;
    Orientation orientation;
    Blank blank;
    int mode = 0;           // QUARVEL_MODE_*
};

// Sheet and frame (sheet.cpp).
Sheet FindSheet(const ScanPage &page);
// Punch holes near the sheet's edges (holes.cpp).
std::vector<Hole> FindHoles(const ScanPage &page, const Sheet &sheet);
// The box of all content inside the sheet, holes and stains left out
// (content.cpp); false when there is none.
// `blobs`, when given, receives the blobs for FindOrientation.
bool FindContent(const ScanPage &page, const Sheet &sheet, const std::vector<Hole> &holes, cv::Rect *box,
                 InkBlobs *blobs = nullptr);
// Skew of the text lines within +-maxSkew degrees (skew.cpp).
Skew FindSkew(const ScanPage &page, const Sheet &sheet, double maxSkew);
// The same search on any ink image at the page's reduced scale; with `fine`
// false only the whole-degree sweep runs (angle to the degree, rise; no
// confidence or lines).
Skew FindInkSkew(const cv::Mat &ink, const ScanPage &page, double maxSkew, bool fine = true);
// Quarter-turn orientation (orientation.cpp).
// `skew` is the page's own (FindSkew with the same maxSkew); `blobs`, when
// given, are FindContent's, used where they are of the very image read.
Orientation FindOrientation(const ScanPage &page, const Sheet &sheet, const Skew &skew, double maxSkew,
                            const InkBlobs *blobs = nullptr);
// Blank verdict and ink measure (blank.cpp).
Blank JudgeBlank(const ScanPage &page, const Analysis &analysis);
// Content colour mode (mode.cpp).
int JudgeContentMode(const ScanPage &page, const Analysis &analysis);

// Every analysis in order (analyze.cpp).
Analysis AnalyzePage(const ScanPage &page, const QuarvelScanOptions &options);
// The report record from an analysis, written up to report->size bytes.
void FillReport(const ScanPage &page, const Analysis &analysis, QuarvelPageReport *report);

// Cleaning steps on top-down images of the page's size.
// Paints each hole with the paper round it (holes.cpp); `image` is the
// page's gray or BGR image or a copy of it.
void FillHoles(const std::vector<Hole> &holes, cv::Mat *image);
// Removes dark specks up to maxSize pixels across from a gray (or 0/255)
// image, keeping dots of i, full stops and thin strokes (despeckle.cpp).
void Despeckle(cv::Mat *gray, int maxSize, int dpi);
// A 0/255 image (0 = ink) by the method's threshold (binarize.cpp).
cv::Mat Binarize(const cv::Mat &gray, int method, int window, double k, int dpi);

// The whole clean (clean.cpp): a new page block, or null.
HGLOBAL CleanPage(const ScanPage &page, const QuarvelScanOptions &options, Analysis *analysis);

}  // namespace quarvel::scan
