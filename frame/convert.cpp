// The shared conversions. Each hangs the working region on the view for the
// call, converts straight from the page's rows into the new image (no
// intermediate copy of the region), and takes the region off again.
#include "frame/convert.h"

#include <algorithm>

namespace quarvel {

namespace {

// The working region: the caller's, or the whole view. False when it does
// not lie inside the view.
bool WorkingRegion(const IplImage &view, const IplROI *roi, IplROI *out) {
    *out = roi != nullptr ? *roi : IplROI{0, 0, 0, view.width, view.height};
    out->coi = 0;
    IplImage probe = view;
    probe.roi = out;
    Region r;
    return RegionOf(probe, &r);
}

}  // namespace

void BitonalScales(const BITMAPINFOHEADER *header, int *zeroScale, int *oneScale) {
    const bool lightFirst = IsLightFirst(header);
    *zeroScale = lightFirst ? 255 : 0;
    *oneScale = lightFirst ? 0 : 255;
}

ImagePtr MakeBitonalImage(IplImage *view, const IplROI *roi, const BITMAPINFOHEADER *header, int threshold) {
    IplROI work;
    if (view == nullptr || !WorkingRegion(*view, roi, &work)) return nullptr;
    ImagePtr out = CreateImage(PixelFormat::kBitonal, work.width, work.height, 255);
    if (!out) return nullptr;
    RoiScope scope(view, &work);
    switch (header->biBitCount) {
        case 1:
            iplCopy(view, out.get());
            break;
        case 8:
            iplThreshold(view, out.get(), threshold);
            break;
        case 24:
        case 32: {
            ImagePtr gray = CreateImage(PixelFormat::kGray, work.width, work.height, 255);
            if (!gray) return nullptr;
            iplColorToGray(view, gray.get());
            iplThreshold(gray.get(), out.get(), threshold);
            break;
        }
        default:
            break;
    }
    return out;
}

ImagePtr ExpandBitonalToGray(IplImage *view, const BITMAPINFOHEADER *header) {
    if (view == nullptr) return nullptr;
    ImagePtr out = CreateImage(PixelFormat::kGray, view->width, view->height, 255);
    if (!out) return nullptr;
    RoiScope scope(view, nullptr);
    const PixelFormat format = FormatOf(*view);
    if (format == PixelFormat::kBitonal) {
        int zero, one;
        BitonalScales(header, &zero, &one);
        iplBitonalToGray(view, out.get(), zero, one);
    } else if (format == PixelFormat::kGray) {
        iplCopy(view, out.get());
    } else {
        // Colour: the larger of blue and red; green is ignored. A 32-bit page
        // is read with its own 4-byte pixels.
        const int bpp = Traits(format).bytesPerPixel;
        for (int y = 0; y < view->height; ++y) {
            const std::uint8_t *s = RowOf(*view, y);
            std::uint8_t *d = RowOf(*out, y);
            for (int x = 0; x < view->width; ++x, s += bpp) d[x] = std::max(s[0], s[2]);
        }
    }
    return out;
}

ImagePtr MakeGrayImage(IplImage *view, const IplROI *roi, const BITMAPINFOHEADER *header) {
    IplROI work;
    if (view == nullptr || !WorkingRegion(*view, roi, &work)) return nullptr;
    ImagePtr out = CreateImage(PixelFormat::kGray, work.width, work.height, 255);
    if (!out) return nullptr;
    RoiScope scope(view, &work);
    switch (FormatOf(*view)) {
        case PixelFormat::kBitonal: {
            int zero, one;
            BitonalScales(header, &zero, &one);
            iplBitonalToGray(view, out.get(), zero, one);
            break;
        }
        case PixelFormat::kGray:
            iplCopy(view, out.get());
            break;
        default:
            iplColorToGray(view, out.get());
            break;
    }
    return out;
}

ImagePtr MakeColorImage(IplImage *view, const IplROI *roi, const BITMAPINFOHEADER *header, int bits) {
    IplROI work;
    if (view == nullptr || !WorkingRegion(*view, roi, &work)) return nullptr;
    ImagePtr out = CreateImage(bits == 24 ? PixelFormat::kBgr : PixelFormat::kBgra, work.width, work.height, 255);
    if (!out) return nullptr;
    RoiScope scope(view, &work);
    switch (header->biBitCount) {
        case 1: {
            ImagePtr gray = CreateImage(PixelFormat::kGray, work.width, work.height, 255);
            if (!gray) return nullptr;
            int zero, one;
            BitonalScales(header, &zero, &one);
            iplBitonalToGray(view, gray.get(), zero, one);
            iplGrayToColor(gray.get(), out.get(), 1.0f, 1.0f, 1.0f);
            break;
        }
        case 8:
            iplGrayToColor(view, out.get(), 1.0f, 1.0f, 1.0f);
            break;
        case 24:
        case 32:
            // Between 24 and 32 bits blue, green and red are converted; a
            // 24-bit pixel gains an opaque fourth byte, a 32-bit one drops it.
            iplCopy(view, out.get());
            break;
        default:
            break;
    }
    return out;
}

}  // namespace quarvel
