// Our image-library layer: the IplImage, IplROI and IplLUT records and the
// imaging primitives every operation is built from, with the image library's
// names and contracts.
//
// Conventions of every primitive:
// - One- and two-image primitives act on each image's region of interest, or
//   on the whole image where it has none. Regions of two images are taken at
//   their common width and height; a region that does not lie inside its
//   image makes the primitive do nothing. No primitive reads or writes
//   outside an image's rows.
// - Values saturate to the depth's range (0..255 per 8-bit channel, 0 and 1
//   for bits); a set or fill value given to a 1-bit image sets bits when it is
//   non-zero and clears them when it is 0.
// - 1-bit rows hold 8 pixels per byte, the leftmost in the most significant
//   bit. Kernels never change a row's padding bits or bytes.
// - A 32-bit image is 3 channels with an alpha byte (4 bytes per pixel). The
//   fourth byte is not a colour: value primitives (iplNot, iplAddS,
//   iplSubtract, iplAnd, iplOr, iplUserProcessPixel) carry it over from the
//   (first) source unchanged, primitives that move pixels (iplCopy,
//   iplMirror, iplRotate, iplResize) move it with its pixel, and fills
//   (iplAllocateImage, iplSet) write the value into all four bytes.
// - Rows are stored bottom-up (origin bottom-left); yOffset counts rows from
//   the first stored row. 8-bit and colour kernels run on OpenCV through
//   zero-copy cv::Mat views over an image's region; 1-bit kernels work on the
//   packed bits directly.
#pragma once

#include <cstdint>
#include <memory>

namespace quarvel {

constexpr int IPL_DEPTH_1U = 1;
constexpr int IPL_DEPTH_8U = 8;
constexpr int IPL_DATA_ORDER_PIXEL = 0;
constexpr int IPL_ORIGIN_BL = 1;
constexpr int IPL_ALIGN_DWORD = 4;
constexpr int IPL_IMAGE_HEADER = 1;
constexpr int IPL_INTER_NN = 0;
constexpr int IPL_INTER_LINEAR = 1;
constexpr int IPL_INTER_CUBIC = 2;
constexpr int IPL_INTER_SUPER = 3;
constexpr int IPL_GAUSSIAN_3x3 = 6;
constexpr int IPL_GAUSSIAN_5x5 = 7;

struct IplROI {
    int coi;
    int xOffset;
    int yOffset;
    int width;
    int height;
};

struct IplImage {
    int nChannels;
    int alphaChannel;
    int depth;
    char colorModel[4];
    char channelSeq[4];
    int dataOrder;
    int origin;
    int align;
    int width;
    int height;
    IplROI *roi;
    IplImage *maskROI;
    void *imageId;
    void *tileInfo;
    int imageSize;
    std::uint8_t *imageData;
    int widthStep;
    // Whether imageData belongs to this image (set by iplAllocateImage) or
    // to someone else (a view over a packed DIB or a result block).
    bool ownsData;
};

struct IplLUT {
    int num;
    int *key;
    int *value;
    int *factor;
    int interpolateType;
};

using IplUserFunc = void (*)(IplImage *srcImage, void *srcPixel, IplImage *dstImage, void *dstPixel);

// Headers, storage and regions.
IplImage *iplCreateImageHeader(int nChannels, int alphaChannel, int depth, const char *colorModel,
                               const char *channelSeq, int dataOrder, int origin, int align, int width, int height,
                               IplROI *roi, IplImage *maskROI, void *imageId, void *tileInfo);
void iplAllocateImage(IplImage *image, int doFill, int fillValue);
void iplDeallocateImage(IplImage *image);
void iplDeallocate(IplImage *image, int flag);
IplROI *iplCreateROI(int coi, int xOffset, int yOffset, int width, int height);
void iplSetROI(IplROI *roi, int coi, int xOffset, int yOffset, int width, int height);
void iplDeleteROI(IplROI *roi);

// Copy, set and logic.
void iplCopy(IplImage *src, IplImage *dst);
void iplSet(IplImage *image, int value);
void iplNot(IplImage *src, IplImage *dst);
void iplAnd(IplImage *src1, IplImage *src2, IplImage *dst);
void iplOr(IplImage *src1, IplImage *src2, IplImage *dst);
void iplGreater(IplImage *srcA, IplImage *srcB, IplImage *dst);
void iplAddS(IplImage *src, IplImage *dst, int value);
void iplSubtract(IplImage *src1, IplImage *src2, IplImage *dst);

// Conversions and thresholds.
void iplThreshold(IplImage *src, IplImage *dst, int threshold);
void iplColorToGray(IplImage *src, IplImage *dst);
void iplGrayToColor(IplImage *src, IplImage *dst, float fractR, float fractG, float fractB);
void iplBitonalToGray(IplImage *src, IplImage *dst, int zeroScale, int oneScale);

// Filters, geometry and per-pixel functions.
void iplMinFilter(IplImage *src, IplImage *dst, int nCols, int nRows, int anchorX, int anchorY);
void iplMaxFilter(IplImage *src, IplImage *dst, int nCols, int nRows, int anchorX, int anchorY);
// iplMinFilter (minimum) or iplMaxFilter; with `plain`, the byte-wise 1-bit
// and OpenCV 8-bit paths, the oracle of the word-wise and row-wise ones.
void MinMaxFilter(IplImage *src, IplImage *dst, int nCols, int nRows, int anchorX, int anchorY, bool minimum,
                  bool plain);
void iplFixedFilter(IplImage *src, IplImage *dst, int filter);
void iplMirror(IplImage *src, IplImage *dst, int flipAxis);
void iplResize(IplImage *src, IplImage *dst, int xDst, int xSrc, int yDst, int ySrc, int interpolate);
// Whether iplResize can scale a 1-bit region of srcW x srcH pixels to
// outW x outH: a super-sampled reduction by whole factors works on the packed
// bits and always can; every other case holds the region and its scaled copy
// as gray levels, at most kMaxBitonalResizeBytes of them.
constexpr long long kMaxBitonalResizeBytes = 1LL << 30;
bool BitonalResizeFits(int srcW, int srcH, long long outW, long long outH, int interpolate);
void iplRotate(IplImage *src, IplImage *dst, double angle, double xShift, double yShift, int interpolate);
// iplRotate; with `plain`, 1-bit images take the plain per-pixel path and
// 8-bit and colour images OpenCV's warpAffine: the oracles of the fast paths.
void RotateImage(IplImage *src, IplImage *dst, double angle, double xShift, double yShift, int interpolate,
                 bool plain);
// iplRotate on 1-bit images with every destination bit the turned image
// does not cover set to `fill` (bits set when non-zero) instead of kept, and,
// where the destination's region spans whole rows, their padding cleared:
// every byte of such a destination is written, so it need not be set first.
void RotateBitonalFilled(IplImage *src, IplImage *dst, double angle, double xShift, double yShift, int fill, bool plain);
void iplGetRotateShift(double xCenter, double yCenter, double angle, double *xShift, double *yShift);
void iplComputeHisto(IplImage *image, IplLUT **luts);
void iplUserProcessPixel(IplImage *src, IplImage *dst, IplUserFunc func);

// --- Ownership -----------------------------------------------------------

// Releases an image the right way: pixels and header for an image that owns
// its pixels, the header only for a view.
struct ImageDeleter {
    void operator()(IplImage *image) const;
};
using ImagePtr = std::unique_ptr<IplImage, ImageDeleter>;

struct RoiDeleter {
    void operator()(IplROI *roi) const { iplDeleteROI(roi); }
};
using RoiPtr = std::unique_ptr<IplROI, RoiDeleter>;

// Hangs a region on an image for a scope and puts the previous one back.
class RoiScope {
public:
    RoiScope(IplImage *image, IplROI *roi) : image_(image), saved_(image->roi) { image->roi = roi; }
    ~RoiScope() { image_->roi = saved_; }
    RoiScope(const RoiScope &) = delete;
    RoiScope &operator=(const RoiScope &) = delete;

private:
    IplImage *image_;
    IplROI *saved_;
};

// The pixel formats a page can have, and what each means to an IplImage.
enum class PixelFormat { kBitonal, kGray, kBgr, kBgra };

struct FormatTraits {
    int bitCount;
    int nChannels;
    int alphaChannel;
    int depth;
    int bytesPerPixel;  // 0 for bitonal
    const char *colorModel;
    const char *channelSeq;
};
const FormatTraits &Traits(PixelFormat format);
// The format of a page depth (1, 8, 24, 32); false for any other depth.
bool FormatOfBitCount(int bitCount, PixelFormat *format);
// The format an image has; bit count of an image (1, 8, 24 or 32).
PixelFormat FormatOf(const IplImage &image);
int BitCountOf(const IplImage &image);

// A new image with its own pixels, every byte set to fill.
ImagePtr CreateImage(PixelFormat format, int width, int height, int fill);
// A new image with the description (channels, alpha, depth, model) of
// another and its own pixels.
ImagePtr CreateImageLike(const IplImage &like, int width, int height, int fill);
// A header over rows someone else owns (a packed DIB or a result block).
ImagePtr WrapRows(PixelFormat format, int width, int height, std::uint8_t *rows);

// A region of an image in plain numbers, validated against the image.
struct Region {
    int x, y, width, height;
};
// The image's region of interest, or the whole image; false when the region
// does not lie inside the image (or is empty).
bool RegionOf(const IplImage &image, Region *region);
// First byte of stored row y of an image.
inline std::uint8_t *RowOf(const IplImage &image, int y) {
    return image.imageData + static_cast<std::ptrdiff_t>(y) * image.widthStep;
}

}  // namespace quarvel
