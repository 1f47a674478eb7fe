// TIFF files through libtiff: several pages per file, 1-bit pages written
// with CCITT Group 4, anything beyond plain 1-, 8-, 24- and 32-bit strips
// read through libtiff's RGBA interface a band of rows at a time. Every
// strip must lie inside the file, and a large page's data must be able to
// decode to what the header claims at the compression's densest coding
// (PackBits 64, LZW about 1400, JPEG one bit per 8 x 8 block).
#include "format_io.h"

#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace qtool::detail {

namespace {

// Pages up to this size are allocated for any TIFF claim that passes the
// limits; larger ones must be plausible against the file's size.
constexpr std::uint64_t kTrustedBytes = 32u << 20;

void TiffQuiet(const char *, const char *, va_list) {}

// Densest coding of each compression: decoded bytes per stored byte.
double MostBytesPerByte(std::uint16_t compression) {
    switch (compression) {
        case COMPRESSION_NONE:
            return 1.0;
        case COMPRESSION_PACKBITS:
            return 64.0;
        case COMPRESSION_LZW:
            return 1400.0;
        case COMPRESSION_JPEG:
        case COMPRESSION_OJPEG:
            return 512.0 * 4;
        default:
            return 1100.0;
    }
}

// The page's stored data must lie inside the file and be able to hold what
// the header claims, before anything of the page's size is allocated.
void CheckTiffData(TIFF *t, const std::string &path, std::uint64_t fileSize, std::uint32_t w, std::uint32_t h,
                   int pageBits) {
    const std::uint32_t n = TIFFNumberOfStrips(t);
    if (n == 0) throw FormatError(path + ": corrupt TIFF file (no image data)");
    std::uint64_t stored = 0;
    for (std::uint32_t i = 0; i < n; ++i) {
        int err = 0;
        const std::uint64_t off = TIFFGetStrileOffsetWithErr(t, i, &err),
                            count = TIFFGetStrileByteCountWithErr(t, i, &err);
        if (err || off > fileSize || count > fileSize - off) Implausible(path, w, h, fileSize);
        stored += count;
    }
    const std::uint64_t raw = TIFFIsTiled(t) ? TIFFTileSize64(t) * n : TIFFScanlineSize64(t) * h;
    const std::uint64_t pageBytes = (static_cast<std::uint64_t>(w) * pageBits + 7) / 8 * h;
    std::uint16_t compression = COMPRESSION_NONE;
    TIFFGetFieldDefaulted(t, TIFFTAG_COMPRESSION, &compression);
    if (pageBytes > kTrustedBytes &&
        static_cast<double>(raw) > MostBytesPerByte(compression) * static_cast<double>(stored) + 4096)
        Implausible(path, w, h, stored);
}

// A 24-bit page whose pixels are all gray, as an 8-bit gray page.
Page GrayIfGray(Page page, const std::string &path) {
    Locked p(page.get());
    if (!p.ok() || p.bits() != 24) return page;
    for (int y = 0; y < p.height(); ++y) {
        const std::uint8_t *r = p.row(y);
        for (int x = 0; x < p.width(); ++x, r += 3)
            if (r[0] != r[1] || r[1] != r[2]) return page;
    }
    Page gray = NewPage(p.width(), p.height(), 8, GrayTable(), DpiOf(p.header()->biXPelsPerMeter),
                        DpiOf(p.header()->biYPelsPerMeter));
    if (!gray) throw FormatError(path + ": out of memory");
    Locked g(gray.get());
    for (int y = 0; y < p.height(); ++y) {
        const std::uint8_t *r = p.row(y);
        std::uint8_t *d = g.row(y);
        for (int x = 0; x < p.width(); ++x) d[x] = r[3 * x];
    }
    return gray;
}

}  // namespace

TIFF *OpenTiff(const std::string &path, const char *mode) {
    TIFFSetErrorHandler(TiffQuiet);
    TIFFSetWarningHandler(TiffQuiet);
    return TIFFOpen(path.c_str(), mode);
}

void TiffCloser::operator()(TIFF *t) const {
    if (t) TIFFClose(t);
}

std::size_t TiffPageCount(TIFF *t) {
    return TIFFNumberOfDirectories(t);
}

bool TiffNextPage(TIFF *t) {
    return TIFFReadDirectory(t) != 0;
}

bool TiffFlush(TIFF *t) {
    return TIFFFlush(t) != 0;
}

Page ReadTiffPage(TIFF *t, const std::string &path, std::uint64_t fileSize) {
    std::uint32_t w = 0, h = 0;
    std::uint16_t bps = 1, spp = 1, photo = PHOTOMETRIC_MINISBLACK, planar = PLANARCONFIG_CONTIG, unit = RESUNIT_INCH;
    float rx = 0, ry = 0;
    TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h);
    TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bps);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(t, TIFFTAG_PLANARCONFIG, &planar);
    if (!TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &photo)) photo = PHOTOMETRIC_MINISWHITE;
    CheckSize(w, h, path);
    if (TIFFGetField(t, TIFFTAG_XRESOLUTION, &rx) && TIFFGetField(t, TIFFTAG_YRESOLUTION, &ry)) {
        TIFFGetFieldDefaulted(t, TIFFTAG_RESOLUTIONUNIT, &unit);
        if (unit == RESUNIT_CENTIMETER) rx *= 2.54f, ry *= 2.54f;
        if (unit == RESUNIT_NONE || !std::isfinite(rx) || !std::isfinite(ry)) rx = ry = 0;
    }
    const bool simple =
        planar == PLANARCONFIG_CONTIG && !TIFFIsTiled(t) &&
        ((bps == 1 && spp == 1 && (photo == PHOTOMETRIC_MINISWHITE || photo == PHOTOMETRIC_MINISBLACK)) ||
         (bps == 8 && spp == 1 && (photo <= PHOTOMETRIC_MINISBLACK || photo == PHOTOMETRIC_PALETTE)) ||
         (bps == 8 && (spp == 3 || spp == 4) && photo == PHOTOMETRIC_RGB));
    const int pageBits = !simple ? 24 : bps == 1 ? 1 : spp == 1 ? 8 : spp == 4 ? 32 : 24;
    CheckTiffData(t, path, fileSize, w, h, pageBits);
    if (!simple) {
        // Anything else (JPEG-in-TIFF, YCbCr, 16 bits, 2 and 4 bits, tiles):
        // through libtiff's RGBA interface, a band of rows at a time.
        char emsg[1024] = "";
        TIFFRGBAImage img;
        if (!TIFFRGBAImageOK(t, emsg) || !TIFFRGBAImageBegin(&img, t, 0, emsg))
            throw FormatError(path + ": unsupported TIFF layout (" + emsg + ")");
        struct End {
            TIFFRGBAImage *img;
            ~End() { TIFFRGBAImageEnd(img); }
        } end{&img};
        img.req_orientation = ORIENTATION_TOPLEFT;
        Page page = NewPage(static_cast<int>(w), static_cast<int>(h), 24, {}, rx, ry);
        if (!page) throw FormatError(path + ": out of memory");
        Locked p(page.get());
        constexpr std::uint32_t kBand = 64;
        std::vector<std::uint32_t> rgba(static_cast<std::size_t>(w) * kBand);
        for (std::uint32_t y0 = 0; y0 < h; y0 += kBand) {
            const std::uint32_t rows = std::min(kBand, h - y0);
            img.row_offset = static_cast<int>(y0);
            img.col_offset = 0;
            if (!TIFFRGBAImageGet(&img, rgba.data(), w, rows)) throw FormatError(path + ": corrupt TIFF data");
            for (std::uint32_t y = 0; y < rows; ++y) {
                std::uint8_t *r = p.displayRow(static_cast<int>(y0 + y));
                const std::uint32_t *s = &rgba[static_cast<std::size_t>(y) * w];
                for (std::uint32_t x = 0; x < w; ++x)
                    r[3 * x] = TIFFGetB(s[x]), r[3 * x + 1] = TIFFGetG(s[x]), r[3 * x + 2] = TIFFGetR(s[x]);
            }
        }
        const bool grayPhoto =
            photo == PHOTOMETRIC_MINISBLACK || photo == PHOTOMETRIC_MINISWHITE || photo == PHOTOMETRIC_PALETTE;
        return grayPhoto ? GrayIfGray(std::move(page), path) : std::move(page);
    }
    std::vector<RGBQUAD> table;
    if (pageBits == 1) {
        table =
            photo == PHOTOMETRIC_MINISWHITE ? std::vector<RGBQUAD>{{255, 255, 255, 0}, {0, 0, 0, 0}} : BitonalTable();
    } else if (pageBits == 8) {
        table = GrayTable();
        if (photo == PHOTOMETRIC_MINISWHITE) std::reverse(table.begin(), table.end());
        std::uint16_t *r, *g, *b;
        if (photo == PHOTOMETRIC_PALETTE && TIFFGetField(t, TIFFTAG_COLORMAP, &r, &g, &b))
            for (int i = 0; i < 256; ++i)
                table[i] = RGBQUAD{static_cast<BYTE>(b[i] >> 8), static_cast<BYTE>(g[i] >> 8),
                                   static_cast<BYTE>(r[i] >> 8), 0};
    }
    Page page = NewPage(static_cast<int>(w), static_cast<int>(h), pageBits, table, rx, ry);
    if (!page) throw FormatError(path + ": out of memory");
    {
        Locked p(page.get());
        const tmsize_t line = TIFFScanlineSize(t);
        if (line <= 0 || static_cast<std::size_t>(line) > p.stride() + 8)
            throw FormatError(path + ": unexpected TIFF layout");
        std::vector<std::uint8_t> buf(static_cast<std::size_t>(line));
        for (std::uint32_t y = 0; y < h; ++y) {
            if (TIFFReadScanline(t, buf.data(), y, 0) < 0) throw FormatError(path + ": corrupt TIFF data");
            std::uint8_t *r = p.displayRow(static_cast<int>(y));
            if (pageBits <= 8) {
                std::memcpy(r, buf.data(), std::min<std::size_t>(buf.size(), p.stride()));
            } else {
                for (std::uint32_t x = 0; x < w; ++x) {
                    const std::uint8_t *s = &buf[x * spp];
                    std::uint8_t *d = r + x * (pageBits / 8);
                    d[0] = s[2], d[1] = s[1], d[2] = s[0];
                    if (pageBits == 32) d[3] = s[3];
                }
            }
        }
    }
    return pageBits == 8 ? ThroughPalette(std::move(page), path) : std::move(page);
}

void WriteTiffPage(TIFF *tf, const Page &page, std::size_t index, std::size_t pages, const std::string &path) {
    Locked p(page.get());
    const int bits = p.bits();
    TIFFSetField(tf, TIFFTAG_IMAGEWIDTH, p.width());
    TIFFSetField(tf, TIFFTAG_IMAGELENGTH, p.height());
    TIFFSetField(tf, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tf, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
    if (pages > 1) {
        TIFFSetField(tf, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
        TIFFSetField(tf, TIFFTAG_PAGENUMBER, static_cast<std::uint16_t>(index), static_cast<std::uint16_t>(pages));
    }
    if (p.header()->biXPelsPerMeter > 0 && p.header()->biYPelsPerMeter > 0) {
        TIFFSetField(tf, TIFFTAG_XRESOLUTION, static_cast<float>(DpiOf(p.header()->biXPelsPerMeter)));
        TIFFSetField(tf, TIFFTAG_YRESOLUTION, static_cast<float>(DpiOf(p.header()->biYPelsPerMeter)));
        TIFFSetField(tf, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    }
    std::vector<std::uint8_t> line;
    bool invert = false, gray = false, rgb = false;
    if (bits == 1) {
        // Group 4, white is zero: bits whose colour is dark become 1.
        invert = Luma(p.table()[0]) < Luma(p.table()[1]);
        TIFFSetField(tf, TIFFTAG_BITSPERSAMPLE, 1);
        TIFFSetField(tf, TIFFTAG_SAMPLESPERPIXEL, 1);
        TIFFSetField(tf, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
        TIFFSetField(tf, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4);
        line.resize((p.width() + 7) / 8);
    } else if (bits == 8 || bits == 4) {
        gray = true;
        TIFFSetField(tf, TIFFTAG_BITSPERSAMPLE, 8);
        TIFFSetField(tf, TIFFTAG_SAMPLESPERPIXEL, 1);
        TIFFSetField(tf, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
        TIFFSetField(tf, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
        line.resize(p.width());
    } else {
        rgb = true;
        const int spp = bits == 32 ? 4 : 3;
        TIFFSetField(tf, TIFFTAG_BITSPERSAMPLE, 8);
        TIFFSetField(tf, TIFFTAG_SAMPLESPERPIXEL, spp);
        TIFFSetField(tf, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
        if (spp == 4) {
            const std::uint16_t extra = EXTRASAMPLE_UNASSALPHA;
            TIFFSetField(tf, TIFFTAG_EXTRASAMPLES, 1, &extra);
        }
        TIFFSetField(tf, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
        line.resize(static_cast<std::size_t>(p.width()) * spp);
    }
    TIFFSetField(tf, TIFFTAG_ROWSPERSTRIP, bits == 1 ? p.height() : 64);
    for (int y = 0; y < p.height(); ++y) {
        const std::uint8_t *r = p.displayRow(y);
        if (bits == 1) {
            for (std::size_t k = 0; k < line.size(); ++k) line[k] = invert ? static_cast<std::uint8_t>(~r[k]) : r[k];
        } else if (gray) {
            if (IsGrayRamp(p))
                std::memcpy(line.data(), r, line.size());
            else
                GrayRow(p, y, line.data());
        } else if (rgb) {
            const int bpp = bits / 8;
            for (int x = 0; x < p.width(); ++x) {
                line[x * bpp] = r[x * bpp + 2], line[x * bpp + 1] = r[x * bpp + 1], line[x * bpp + 2] = r[x * bpp];
                if (bpp == 4) line[x * 4 + 3] = r[x * 4 + 3];
            }
        }
        if (TIFFWriteScanline(tf, line.data(), static_cast<std::uint32_t>(y), 0) < 0)
            throw FormatError(path + ": write failed");
    }
    if (!TIFFWriteDirectory(tf)) throw FormatError(path + ": write failed");
}

}  // namespace qtool::detail
