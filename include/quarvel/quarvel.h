/* Quarvel: document-image operations for scanned pages.
 *
 * A page crosses this interface as an HGLOBAL handle to a packed DIB: a
 * 40-byte BITMAPINFOHEADER, its colour table, then the pixel rows, bottom row
 * first, each row padded to a multiple of four bytes. Pages of 1, 8, 24 and
 * 32 bits per pixel are accepted (the analysis operations also read 4 and 16).
 *
 * An image operation returns a new block that the caller owns and frees with
 * GlobalFree, or NULL when it refuses the page. A measurement returns a
 * number. No operation frees or changes the caller's block, except ImageAnd,
 * which also writes its result into its first page. The library keeps no
 * state between calls; every operation may run on any thread.
 *
 * Rectangles (RECT) count rows from the top of the page as displayed, with
 * right and bottom exclusive; centres and offsets given as plain integers count
 * rows from the first stored row, the bottom row of the page.
 */
#ifndef QUARVEL_QUARVEL_H
#define QUARVEL_QUARVEL_H

#include "win32.h"

#if defined(_WIN32) && !defined(_WIN64)
#define QUARVEL_CALL __stdcall
#else
#define QUARVEL_CALL
#endif

#if defined(QUARVEL_BUILDING) && !defined(_WIN32)
#define QUARVEL_API __attribute__((visibility("default")))
#else
#define QUARVEL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Mirror, flip and invert. */
QUARVEL_API HGLOBAL QUARVEL_CALL Mirror(HGLOBAL hDib);
QUARVEL_API HGLOBAL QUARVEL_CALL Flip(HGLOBAL hDib);
QUARVEL_API HGLOBAL QUARVEL_CALL Invert(HGLOBAL hDib);

/* Brightness and contrast. */
QUARVEL_API HGLOBAL QUARVEL_CALL AdjustBrightness(HGLOBAL hDib, int brightness);
QUARVEL_API HGLOBAL QUARVEL_CALL AdjustContrast(HGLOBAL hDib, int contrast);
QUARVEL_API HGLOBAL QUARVEL_CALL AdjustBrightnessAndContrast(HGLOBAL hDib, int brightness, int contrast);

/* Text thickening and thinning. */
QUARVEL_API HGLOBAL QUARVEL_CALL TextEffect(HGLOBAL hDib, int level);
QUARVEL_API HGLOBAL QUARVEL_CALL TextEffectRect(HGLOBAL hDib, RECT *rect, int level);

/* Region fill. */
QUARVEL_API HGLOBAL QUARVEL_CALL Fill(HGLOBAL hDib, RECT *rect, int value);
QUARVEL_API HGLOBAL QUARVEL_CALL FillOutside(HGLOBAL hDib, RECT *rect, int value);

/* Image arithmetic. */
QUARVEL_API HGLOBAL QUARVEL_CALL ImageAnd(HGLOBAL hDib1, HGLOBAL hDib2, int x1, int y1, int x2, int y2, int width, int height);
QUARVEL_API HGLOBAL QUARVEL_CALL ImageOr(HGLOBAL hDib1, HGLOBAL hDib2, int x1, int y1, int x2, int y2, int width, int height);
QUARVEL_API HGLOBAL QUARVEL_CALL GetLess(HGLOBAL hDib1, HGLOBAL hDib2);

/* Colour-mode conversion. */
QUARVEL_API HGLOBAL QUARVEL_CALL ConvertMode(HGLOBAL hDib, int mode, int threshold);
QUARVEL_API HGLOBAL QUARVEL_CALL ConvertModeToGrayEx(HGLOBAL hDib, int redDelta, int blueDelta);

/* Resize and thumbnail. */
QUARVEL_API HGLOBAL QUARVEL_CALL Thumbnail(HGLOBAL hDib, int maxWidth, int maxHeight);
QUARVEL_API HGLOBAL QUARVEL_CALL Resize(HGLOBAL hDib, int width, int height);

/* Rotation and crop. */
QUARVEL_API HGLOBAL QUARVEL_CALL Rotate(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate);
QUARVEL_API HGLOBAL QUARVEL_CALL RotateEx(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate);
QUARVEL_API HGLOBAL QUARVEL_CALL RotateEx1(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate);
QUARVEL_API HGLOBAL QUARVEL_CALL RotateExpand(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate);
QUARVEL_API HGLOBAL QUARVEL_CALL Crop(HGLOBAL hDib, RECT *rect, int mode, int border);

/* Border and punch-hole removal. */
QUARVEL_API HGLOBAL QUARVEL_CALL RemoveBorder(HGLOBAL hDib, int nThreshold, int nParam3, int nParam4);
QUARVEL_API HGLOBAL QUARVEL_CALL RemoveBorder1(HGLOBAL hDib, int nThreshold, int nAngle, int nParam4, int nParam5);
QUARVEL_API HGLOBAL QUARVEL_CALL RemoveBorder_GPY(HGLOBAL hDib, int nThreshold);
QUARVEL_API HGLOBAL QUARVEL_CALL RemoveBorder_Fill(HGLOBAL hDib, int nThreshold);
QUARVEL_API HGLOBAL QUARVEL_CALL RemoveHole(HGLOBAL hDib, BOOL bLeft, BOOL bTop, BOOL bRight, BOOL bBottom, int nMargin,
                                            int nMinHoles, int nMaxHoles, int nMinSize, int nMaxSize, double dDensity);

/* Page cleaning and composition. */
QUARVEL_API HGLOBAL QUARVEL_CALL Denoise(HGLOBAL hDib, int nSize);
QUARVEL_API HGLOBAL QUARVEL_CALL DenoiseRect(HGLOBAL hDib, RECT *prcArea, int nSize);
QUARVEL_API int QUARVEL_CALL IsBlankPage(HGLOBAL hDib, int threshold);
QUARVEL_API HGLOBAL QUARVEL_CALL AddWaterMark(HGLOBAL hDib, HGLOBAL hMark);
QUARVEL_API HGLOBAL QUARVEL_CALL AddWaterMarkEx(HGLOBAL hDib, HGLOBAL hMark);
QUARVEL_API HGLOBAL QUARVEL_CALL Combine(HGLOBAL hDib1, HGLOBAL hDib2, int nMode);

/* Colour analysis and enhancement. */
QUARVEL_API int QUARVEL_CALL JudgeColorMode(HGLOBAL hDib, int colorThreshold);
QUARVEL_API HGLOBAL QUARVEL_CALL ConvertHongTou(HGLOBAL hColorDib, HGLOBAL hGrayDib, int reserved1, int reserved2, int reserved3,
                                                int colorDiff);
QUARVEL_API HGLOBAL QUARVEL_CALL ConvertHongTouEx(HGLOBAL hColorDib, HGLOBAL hGrayDib, int reserved1, int reserved2,
                                                  int reserved3, int colorDiff, BYTE minLevel);
QUARVEL_API HGLOBAL QUARVEL_CALL EnhanceColor(HGLOBAL hDib, RECT *rect, int splitLevel, int brighten, int darken,
                                              int redThreshold, int redBoost, int blueThreshold, int blueBoost);
QUARVEL_API HGLOBAL QUARVEL_CALL EnhanceColorEx(HGLOBAL hDib, HGLOBAL hMap, RECT *rect, int splitLevel, int brighten, int darken,
                                                int redThreshold, int redBoost, int blueThreshold, int blueBoost);
QUARVEL_API HGLOBAL QUARVEL_CALL EnhanceColorEx1(HGLOBAL hDib, HGLOBAL hBaseDib, HGLOBAL hMap, RECT *rect, int splitLevel,
                                                 int brighten, int darken, int redThreshold, int redBoost, int blueThreshold,
                                                 int blueBoost);
QUARVEL_API HGLOBAL QUARVEL_CALL DeColorize(HGLOBAL hDib, RECT *rect, int redThreshold, int blueThreshold, int greenThreshold);

/* Thresholds, skew and the scanner precision test. */
QUARVEL_API unsigned int QUARVEL_CALL GetBinaryThresholdByOtsu(HGLOBAL hDib);
QUARVEL_API unsigned int QUARVEL_CALL GetBinaryThresholdByRidCal(HGLOBAL hDib);
QUARVEL_API double QUARVEL_CALL GetObliquity(HGLOBAL hDib);
QUARVEL_API int QUARVEL_CALL TestPrecision(HGLOBAL hDib, int resolution, double *horizontal, double *vertical);

#ifdef __cplusplus
}
#endif

#endif /* QUARVEL_QUARVEL_H */
