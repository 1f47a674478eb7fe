/* Quarvel real-scan layer: page analysis and cleaning built for real scans.
 *
 * Pages cross this interface as in quarvel.h: an HGLOBAL handle to a packed
 * DIB of 1, 4, 8, 16, 24 or 32 bits (palette pages are read through their
 * colour table). A cleaned page is a new block that the caller owns and frees
 * with GlobalFree; NULL means the page could not be read.
 *
 * Coordinates in reports are those of the page as displayed, before any
 * correction: x to the right, y down from the top-left corner; boxes have
 * right and bottom exclusive.
 *
 * Records that cross the interface start with their own size (set it to
 * sizeof the record before the call), so a caller built against an older,
 * shorter record keeps working: the library reads and writes only the bytes
 * the caller's size covers, and fields past it take their defaults.
 *
 * Every function is thread-safe and keeps no state between calls.
 */
#ifndef QUARVEL_SCAN_H
#define QUARVEL_SCAN_H

#include "quarvel.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The version of this interface; it grows when records grow. */
#define QUARVEL_SCAN_VERSION 1

/* Steps of QuarvelCleanPage, combined in QuarvelScanOptions.steps. */
#define QUARVEL_CLEAN_DESKEW      0x0001u /* straighten, when the skew confidence allows */
#define QUARVEL_CLEAN_ORIENT      0x0002u /* turn upright by quarter turns, when confident */
#define QUARVEL_CLEAN_CROP        0x0004u /* cut the sheet out of the scanner frame */
#define QUARVEL_CLEAN_WHITEN      0x0008u /* keep the page size, paint the frame as paper (instead of CROP) */
#define QUARVEL_CLEAN_HOLES       0x0010u /* fill punch holes with the surrounding paper */
#define QUARVEL_CLEAN_DESPECKLE   0x0020u /* remove isolated specks */
#define QUARVEL_CLEAN_BINARIZE    0x0040u /* finish with a 1-bit page (binarize_method) */
/* What a NULL options pointer (or steps 0 in QuarvelDefaultOptions) means. */
#define QUARVEL_CLEAN_DEFAULT (QUARVEL_CLEAN_DESKEW | QUARVEL_CLEAN_CROP | QUARVEL_CLEAN_HOLES | QUARVEL_CLEAN_DESPECKLE)

/* Binarisation methods. */
#define QUARVEL_BINARIZE_DEFAULT  0 /* the library's best general method */
#define QUARVEL_BINARIZE_SAUVOLA  1
#define QUARVEL_BINARIZE_WOLF     2 /* Wolf-Jolion */
#define QUARVEL_BINARIZE_OTSU     3 /* one global threshold */

/* Sides of a frame, combined in QuarvelPageReport.frame_sides. */
#define QUARVEL_SIDE_LEFT   0x1
#define QUARVEL_SIDE_TOP    0x2
#define QUARVEL_SIDE_RIGHT  0x4
#define QUARVEL_SIDE_BOTTOM 0x8

/* Where QuarvelPageReport.dpi came from. */
#define QUARVEL_DPI_GIVEN 1 /* the dpi option */
#define QUARVEL_DPI_TAG   2 /* the page's own resolution */
#define QUARVEL_DPI_TEXT  3 /* the scale of the page's text (the tag or size it contradicted replaced) */
#define QUARVEL_DPI_SIZE  4 /* the page's size, taken as a letter or A4 sheet */

/* Content colour modes: what the content needs, whatever the file stores. */
#define QUARVEL_MODE_BITONAL 1  /* black-and-white content on any paper tint */
#define QUARVEL_MODE_GRAY    8  /* needs gray levels: photos, halftones, pencil */
#define QUARVEL_MODE_COLOR   24 /* colour carries information */

typedef struct QuarvelScanOptions {
    uint32_t size;            /* sizeof(QuarvelScanOptions) */
    uint32_t steps;           /* QUARVEL_CLEAN_* for QuarvelCleanPage */
    int32_t dpi;              /* resolution to assume; 0: the page's own tag, checked against its text's scale */
    double max_skew;          /* degrees searched either side of upright, up to 45; 0: 45 */
    double min_skew_confidence; /* deskew only at or above this confidence (0..1); default 0.5 */
    double min_orientation_confidence; /* turn only at or above this (0..1); default 0.6 */
    int32_t margin;           /* pixels of paper kept round the content when cropping; -1: about 2 mm */
    int32_t binarize_method;  /* QUARVEL_BINARIZE_* */
    int32_t binarize_window;  /* window side in pixels; 0: chosen from the resolution */
    double binarize_k;        /* the method's sensitivity; 0: the method's default */
    int32_t speck_size;       /* largest speck removed, in pixels across; 0: from the resolution, -1: off */
} QuarvelScanOptions;

typedef struct QuarvelHole {
    double cx, cy;            /* centre, page pixels as displayed */
    double r;                 /* radius in pixels */
} QuarvelHole;

#define QUARVEL_MAX_HOLES 16

typedef struct QuarvelPageReport {
    uint32_t size;            /* sizeof(QuarvelPageReport), set by the caller */
    int32_t usable;           /* 1: the page was read and every field below is set; 0: nothing below is */
    int32_t width, height;    /* page size in pixels */
    int32_t dpi;              /* resolution used (the option's, the tag, or from the text or page size) */

    double skew_angle;        /* degrees; positive: text lines fall toward the right as displayed (GetObliquity's sign) */
    double skew_confidence;   /* 0..1; low on pages without text lines */

    int32_t orientation;      /* 0, 90, 180 or 270: the clockwise turn that makes the page upright */
    double orientation_confidence; /* 0..1 */

    RECT sheet;               /* the paper sheet; the whole page when there is no frame */
    uint32_t frame_sides;     /* QUARVEL_SIDE_* where a frame was found; 0: no frame */

    int32_t has_content;      /* 0: no content found; content is then empty */
    RECT content;             /* the box holding all printed or written content */

    int32_t hole_count;       /* holes found (at most QUARVEL_MAX_HOLES are listed) */
    QuarvelHole holes[QUARVEL_MAX_HOLES];

    int32_t blank;            /* 1: no content worth keeping */
    double ink;               /* fraction of the sheet covered by content ink, 0..1 */
    int32_t mode;             /* QUARVEL_MODE_*; 0 when unusable */
    int32_t dpi_source;       /* QUARVEL_DPI_*: where dpi came from */
} QuarvelPageReport;

/* QUARVEL_SCAN_VERSION of the library actually loaded. */
QUARVEL_API int QUARVEL_CALL QuarvelScanVersion(void);

/* Fills options with the defaults (size included). */
QUARVEL_API void QUARVEL_CALL QuarvelDefaultOptions(QuarvelScanOptions *options);

/* Measures the page: skew, orientation, sheet and frame, content box, holes,
 * blank verdict and content mode. Returns 1 and sets report->usable when the
 * page could be read, else 0 with report->usable = 0. options may be NULL. */
QUARVEL_API int QUARVEL_CALL QuarvelAnalyzePage(HGLOBAL page, const QuarvelScanOptions *options,
                                                QuarvelPageReport *report);

/* Cleans the page with options->steps (QUARVEL_CLEAN_DEFAULT for NULL
 * options) and returns the new page, or NULL when the page could not be read.
 * report, when not NULL, receives the analysis of the input page. Content is
 * never cut: every crop keeps the content box and a margin round it. */
QUARVEL_API HGLOBAL QUARVEL_CALL QuarvelCleanPage(HGLOBAL page, const QuarvelScanOptions *options,
                                                  QuarvelPageReport *report);

/* A 1-bit page (palette black then white) by an adaptive or global
 * threshold; options may be NULL (the default method and window). */
QUARVEL_API HGLOBAL QUARVEL_CALL QuarvelBinarizePage(HGLOBAL page, const QuarvelScanOptions *options);

#ifdef __cplusplus
}
#endif

#endif /* QUARVEL_SCAN_H */
