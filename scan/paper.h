// Helpers the content analyses share: a resolution that can be trusted for
// physical sizes, the local paper level of a gray image, blobs, and the
// sheet's paper box on a coarse page.
#pragma once

#include <opencv2/core.hpp>

#include "scan/page.h"

namespace quarvel::scan {

// The page's resolution when it describes a sheet of paper, else one
// estimated from the size: headers often say 72 or 96 dpi for a 300-dpi
// scan, which would make a letter-size sheet 30 inches tall.
int PaperDpi(const ScanPage &page);
// The brightest value of every cell x cell block (partial blocks at the
// right and bottom included), CV_8U.
cv::Mat CellMax(const cv::Mat &gray, int cell);
// The paper level round every pixel of a gray image: the brightest value in
// cells of `cell` pixels, spread by a dilation and a box mean over `window`
// pixels (wider than any stroke). Same size as `gray`, CV_8U.
cv::Mat PaperLevel(const cv::Mat &gray, int cell, int window);
// 8-connected blobs of a mask: labels (CV_32S) and one row per label of
// left, top, width, height and area in OpenCV's cv::CC_STAT_* order; returns
// the label count (background included); `labels` may be null when only
// the statistics are wanted. Labels are numbered as OpenCV's
// cv::connectedComponents numbers them (by the first 2 x 2 block of rows
// 2k and 2k+1 each blob touches), from runs of each row joined by
// union-find, which reads a mask row as bits and is several times quicker.
int LabelBlobs(const cv::Mat &mask, cv::Mat *labels, cv::Mat *stats);
// The part of `within` left when dark scanner background is cut from each
// side: whole rows and columns (starting at the edge, at most 15 % of the
// size per side) whose mean is under 60 % of the paper (the 90th
// percentile). Used when no sheet with frame sides was found.
cv::Rect PaperBox(const cv::Mat &gray, const cv::Rect &within);
// A rectangle scaled down by `factor` and clipped to `size`.
cv::Rect ShrinkRect(const cv::Rect &r, int factor, cv::Size size);

}  // namespace quarvel::scan
