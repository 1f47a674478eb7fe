// Image headers, pixel storage, regions, the format table and the OpenCV
// bridge of our image-library layer.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "frame/bits.h"
#include "frame/dib.h"
#include "frame/ipl.h"
#include "frame/ipl_mat.h"

namespace quarvel {

namespace bits {
namespace {
constexpr std::uint8_t ReverseByte(unsigned v) {
    unsigned r = 0;
    for (int i = 0; i < 8; ++i) r |= ((v >> i) & 1u) << (7 - i);
    return static_cast<std::uint8_t>(r);
}
struct ReverseTable {
    std::uint8_t v[256];
    constexpr ReverseTable() : v() {
        for (unsigned i = 0; i < 256; ++i) v[i] = ReverseByte(i);
    }
};
constexpr ReverseTable kTable;
}  // namespace
const std::uint8_t kReverse[256] = {
#define R(i) kTable.v[i]
#define R4(i) R(i), R(i + 1), R(i + 2), R(i + 3)
#define R16(i) R4(i), R4(i + 4), R4(i + 8), R4(i + 12)
#define R64(i) R16(i), R16(i + 16), R16(i + 32), R16(i + 48)
    R64(0), R64(64), R64(128), R64(192)
#undef R64
#undef R16
#undef R4
#undef R
};
}  // namespace bits

namespace {

constexpr FormatTraits kFormats[] = {
    {1, 1, 0, IPL_DEPTH_1U, 0, "GRAY", "G"},
    {8, 1, 0, IPL_DEPTH_8U, 1, "GRAY", "G"},
    {24, 3, 0, IPL_DEPTH_8U, 3, "RGB", "BGR"},
    {32, 3, 1, IPL_DEPTH_8U, 4, "RGB", "BGR"},
};

void CopyName(char (&out)[4], const char *name) {
    std::memset(out, 0, sizeof out);
    if (name != nullptr) std::memcpy(out, name, std::min(sizeof out, std::strlen(name)));
}

std::int64_t BitsPerPixel(const IplImage &image) {
    return static_cast<std::int64_t>(image.depth) * (image.nChannels + (image.alphaChannel ? 1 : 0));
}

}  // namespace

const FormatTraits &Traits(PixelFormat format) { return kFormats[static_cast<int>(format)]; }

bool FormatOfBitCount(int bitCount, PixelFormat *format) {
    switch (bitCount) {
        case 1: *format = PixelFormat::kBitonal; return true;
        case 8: *format = PixelFormat::kGray; return true;
        case 24: *format = PixelFormat::kBgr; return true;
        case 32: *format = PixelFormat::kBgra; return true;
        default: return false;
    }
}

PixelFormat FormatOf(const IplImage &image) {
    if (image.depth == IPL_DEPTH_1U) return PixelFormat::kBitonal;
    if (image.nChannels == 1) return PixelFormat::kGray;
    return image.alphaChannel ? PixelFormat::kBgra : PixelFormat::kBgr;
}

int BitCountOf(const IplImage &image) { return Traits(FormatOf(image)).bitCount; }

IplImage *iplCreateImageHeader(int nChannels, int alphaChannel, int depth, const char *colorModel,
                               const char *channelSeq, int dataOrder, int origin, int align, int width, int height,
                               IplROI *roi, IplImage *maskROI, void *imageId, void *tileInfo) {
    if (width <= 0 || height <= 0 || (depth != IPL_DEPTH_1U && depth != IPL_DEPTH_8U)) return nullptr;
    if (nChannels != 1 && nChannels != 3) return nullptr;
    auto *image = new (std::nothrow) IplImage{};
    if (image == nullptr) return nullptr;
    image->nChannels = nChannels;
    image->alphaChannel = alphaChannel;
    image->depth = depth;
    CopyName(image->colorModel, colorModel);
    CopyName(image->channelSeq, channelSeq);
    image->dataOrder = dataOrder;
    image->origin = origin;
    image->align = align;
    image->width = width;
    image->height = height;
    image->roi = roi;
    image->maskROI = maskROI;
    image->imageId = imageId;
    image->tileInfo = tileInfo;
    // Rows padded to the alignment (4 bytes); the alpha byte counts.
    const std::int64_t alignBytes = align > 0 ? align : IPL_ALIGN_DWORD;
    const std::int64_t rowBits = static_cast<std::int64_t>(width) * BitsPerPixel(*image);
    const std::int64_t step = (rowBits + alignBytes * 8 - 1) / (alignBytes * 8) * alignBytes;
    // Checked by division first: step * height can pass 2^63 for int sizes.
    const std::int64_t maxSize = std::numeric_limits<int>::max();
    if (step > maxSize / height) {
        delete image;
        return nullptr;
    }
    const std::int64_t size = step * height;
    if (size > maxSize) {
        delete image;
        return nullptr;
    }
    image->widthStep = static_cast<int>(step);
    image->imageSize = static_cast<int>(size);
    return image;
}

void iplAllocateImage(IplImage *image, int doFill, int fillValue) {
    if (image == nullptr || image->imageData != nullptr) return;
    auto *data = static_cast<std::uint8_t *>(std::malloc(static_cast<std::size_t>(image->imageSize)));
    if (data == nullptr) return;
    image->imageData = data;
    image->ownsData = true;
    if (doFill) {
        const int v = image->depth == IPL_DEPTH_1U ? (fillValue != 0 ? 0xFF : 0) : std::clamp(fillValue, 0, 255);
        std::memset(data, v, static_cast<std::size_t>(image->imageSize));
    }
}

void iplDeallocateImage(IplImage *image) {
    if (image == nullptr) return;
    if (image->ownsData) std::free(image->imageData);
    delete image;
}

void iplDeallocate(IplImage *image, int flag) {
    if (image == nullptr) return;
    if (flag != IPL_IMAGE_HEADER && image->ownsData) std::free(image->imageData);
    delete image;
}

IplROI *iplCreateROI(int coi, int xOffset, int yOffset, int width, int height) {
    return new (std::nothrow) IplROI{coi, xOffset, yOffset, width, height};
}

void iplSetROI(IplROI *roi, int coi, int xOffset, int yOffset, int width, int height) {
    if (roi != nullptr) *roi = IplROI{coi, xOffset, yOffset, width, height};
}

void iplDeleteROI(IplROI *roi) { delete roi; }

void ImageDeleter::operator()(IplImage *image) const {
    if (image == nullptr) return;
    if (image->ownsData) {
        iplDeallocateImage(image);
    } else {
        iplDeallocate(image, IPL_IMAGE_HEADER);
    }
}

ImagePtr CreateImage(PixelFormat format, int width, int height, int fill) {
    const FormatTraits &t = Traits(format);
    ImagePtr image(iplCreateImageHeader(t.nChannels, t.alphaChannel, t.depth, t.colorModel, t.channelSeq,
                                        IPL_DATA_ORDER_PIXEL, IPL_ORIGIN_BL, IPL_ALIGN_DWORD, width, height, nullptr,
                                        nullptr, nullptr, nullptr));
    if (!image) return nullptr;
    iplAllocateImage(image.get(), 1, fill);
    if (image->imageData == nullptr) return nullptr;
    return image;
}

ImagePtr CreateImageLike(const IplImage &like, int width, int height, int fill) {
    return CreateImage(FormatOf(like), width, height, fill);
}

ImagePtr WrapRows(PixelFormat format, int width, int height, std::uint8_t *rows) {
    const FormatTraits &t = Traits(format);
    ImagePtr image(iplCreateImageHeader(t.nChannels, t.alphaChannel, t.depth, t.colorModel, t.channelSeq,
                                        IPL_DATA_ORDER_PIXEL, IPL_ORIGIN_BL, IPL_ALIGN_DWORD, width, height, nullptr,
                                        nullptr, nullptr, nullptr));
    if (image) image->imageData = rows;
    return image;
}

bool RegionOf(const IplImage &image, Region *region) {
    if (image.imageData == nullptr) return false;
    if (image.roi == nullptr) {
        *region = Region{0, 0, image.width, image.height};
        return true;
    }
    const IplROI &r = *image.roi;
    if (r.width <= 0 || r.height <= 0 || r.xOffset < 0 || r.yOffset < 0) return false;
    if (static_cast<std::int64_t>(r.xOffset) + r.width > image.width) return false;
    if (static_cast<std::int64_t>(r.yOffset) + r.height > image.height) return false;
    *region = Region{r.xOffset, r.yOffset, r.width, r.height};
    return true;
}

int MatType(const IplImage &image) {
    switch (FormatOf(image)) {
        case PixelFormat::kGray: return CV_8UC1;
        case PixelFormat::kBgr: return CV_8UC3;
        case PixelFormat::kBgra: return CV_8UC4;
        default: return -1;
    }
}

cv::Mat MatOf(const IplImage &image, const Region &region) {
    const int bpp = Traits(FormatOf(image)).bytesPerPixel;
    return cv::Mat(region.height, region.width, MatType(image),
                   RowOf(image, region.y) + static_cast<std::ptrdiff_t>(region.x) * bpp,
                   static_cast<std::size_t>(image.widthStep));
}

bool CommonRegions(const IplImage &a, const IplImage &b, Region *ra, Region *rb) {
    if (!RegionOf(a, ra) || !RegionOf(b, rb)) return false;
    const int w = std::min(ra->width, rb->width);
    const int h = std::min(ra->height, rb->height);
    ra->width = rb->width = w;
    ra->height = rb->height = h;
    return true;
}

bool CommonRegions(const IplImage &a, const IplImage &b, const IplImage &c, Region *ra, Region *rb, Region *rc) {
    if (!RegionOf(a, ra) || !RegionOf(b, rb) || !RegionOf(c, rc)) return false;
    const int w = std::min({ra->width, rb->width, rc->width});
    const int h = std::min({ra->height, rb->height, rc->height});
    ra->width = rb->width = rc->width = w;
    ra->height = rb->height = rc->height = h;
    return true;
}

bool SameFormat(const IplImage &a, const IplImage &b) { return FormatOf(a) == FormatOf(b); }

}  // namespace quarvel
