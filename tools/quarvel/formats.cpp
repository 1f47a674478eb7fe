// File formats through the established libraries: libpng, libtiff and
// libjpeg(-turbo); BMP and PNM are read and written directly. Every reader
// checks sizes before it allocates and refuses what it cannot represent
// with a FormatError naming the reason.
#include "formats.h"

#include <jpeglib.h>
#include <png.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>

namespace qtool {

namespace {

constexpr long long kMaxPixels = 1LL << 30;  // a page beyond this is refused

std::string Lower(std::string s) {
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

void CheckSize(long long w, long long h, const std::string &what) {
    if (w <= 0 || h <= 0 || w * h > kMaxPixels) throw FormatError(what + ": unsupported image size " + std::to_string(w) + " x " + std::to_string(h));
}

std::vector<std::uint8_t> Slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw FormatError(path + ": cannot open file");
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}

bool IsGrayRamp(const Locked &p) {
    if (p.bits() != 8 || p.colors() != 256) return false;
    const RGBQUAD *t = p.table();
    for (int i = 0; i < 256; ++i)
        if (t[i].rgbBlue != i || t[i].rgbGreen != i || t[i].rgbRed != i) return false;
    return true;
}

int Luma(const RGBQUAD &c) { return (c.rgbRed * 299 + c.rgbGreen * 587 + c.rgbBlue * 114 + 500) / 1000; }

// Row `y` (top first) as 8-bit gray levels through the colour table, or as
// B, G, R for colour pages (`out` sized for it).
void GrayRow(const Locked &p, int y, std::uint8_t *out) {
    const std::uint8_t *r = p.displayRow(y);
    const RGBQUAD *t = p.table();
    for (int x = 0; x < p.width(); ++x) {
        switch (p.bits()) {
            case 1: out[x] = static_cast<std::uint8_t>(Luma(t[(r[x >> 3] >> (7 - (x & 7))) & 1])); break;
            case 4: out[x] = static_cast<std::uint8_t>(Luma(t[(x & 1) ? r[x >> 1] & 15 : r[x >> 1] >> 4])); break;
            case 8: out[x] = static_cast<std::uint8_t>(Luma(t[r[x]])); break;
            default: {
                const std::uint8_t *q = r + x * (p.bits() / 8);
                out[x] = static_cast<std::uint8_t>((q[2] * 299 + q[1] * 587 + q[0] * 114 + 500) / 1000);
            }
        }
    }
}

// ---- BMP ------------------------------------------------------------------------

std::vector<Page> ReadBmp(const std::string &path, const std::vector<std::uint8_t> &f) {
    if (f.size() < 54) throw FormatError(path + ": truncated BMP file");
    auto u32 = [&](std::size_t o) { std::uint32_t v; std::memcpy(&v, &f[o], 4); return v; };
    const std::uint32_t offBits = u32(10), hdrSize = u32(14);
    if (hdrSize < 40 || 14 + static_cast<std::size_t>(hdrSize) > f.size()) throw FormatError(path + ": unsupported BMP header");
    BITMAPINFOHEADER h;
    std::memcpy(&h, &f[14], 40);
    if (h.biCompression != 0 && !(h.biCompression == 3 && (h.biBitCount == 32 || h.biBitCount == 16)))
        throw FormatError(path + ": compressed BMP files are not supported");
    const int bits = h.biBitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32)
        throw FormatError(path + ": unsupported BMP depth " + std::to_string(bits));
    const bool topDown = h.biHeight < 0;
    const long long w = h.biWidth, hh = topDown ? -static_cast<long long>(h.biHeight) : h.biHeight;
    CheckSize(w, hh, path);
    std::uint32_t colors = h.biClrUsed != 0 ? h.biClrUsed : (bits <= 8 ? 1u << bits : 0);
    if (colors > 256) throw FormatError(path + ": bad BMP colour table");
    std::vector<RGBQUAD> table(colors);
    const std::size_t tableAt = 14 + hdrSize + (h.biCompression == 3 && hdrSize == 40 ? 12 : 0);
    if (tableAt + 4 * colors > f.size()) throw FormatError(path + ": truncated BMP colour table");
    if (colors) std::memcpy(table.data(), &f[tableAt], 4 * colors);
    const std::size_t stride = ((static_cast<std::size_t>(w) * bits + 31) / 32) * 4;
    if (static_cast<std::size_t>(offBits) + stride * hh > f.size()) throw FormatError(path + ": truncated BMP pixel data");
    Page page = NewPage(static_cast<int>(w), static_cast<int>(hh), bits, table, DpiOf(h.biXPelsPerMeter), DpiOf(h.biYPelsPerMeter));
    if (!page) throw FormatError(path + ": out of memory");
    Locked p(page.get());
    p.header()->biClrUsed = h.biClrUsed;
    for (long long y = 0; y < hh; ++y) {
        const long long src = topDown ? hh - 1 - y : y;
        std::memcpy(p.row(static_cast<int>(y)), &f[offBits + src * stride], stride);
    }
    std::vector<Page> out;
    out.push_back(std::move(page));
    return out;
}

std::vector<std::uint8_t> EncodeBmp(const Page &page) {
    Locked p(page.get());
    const std::size_t dib = 40 + 4 * p.colors() + static_cast<std::size_t>(p.stride()) * p.height();
    std::vector<std::uint8_t> out(14 + dib);
    const std::uint32_t size = static_cast<std::uint32_t>(out.size()), off = static_cast<std::uint32_t>(14 + 40 + 4 * p.colors());
    out[0] = 'B', out[1] = 'M';
    std::memcpy(&out[2], &size, 4);
    std::memcpy(&out[10], &off, 4);
    std::memcpy(&out[14], p.header(), dib);
    const std::uint32_t headerSize = 40;
    std::memcpy(&out[14], &headerSize, 4);
    return out;
}

// ---- PNG ------------------------------------------------------------------------

struct PngReadGuard {
    png_structp png = nullptr;
    png_infop info = nullptr;
    ~PngReadGuard() { png_destroy_read_struct(&png, info ? &info : nullptr, nullptr); }
};

void PngError(png_structp png, png_const_charp msg) {
    auto *why = static_cast<std::string *>(png_get_error_ptr(png));
    if (why) *why = msg;
    png_longjmp(png, 1);
}
void PngWarning(png_structp, png_const_charp) {}

std::vector<Page> ReadPng(const std::string &path, const std::vector<std::uint8_t> &f) {
    std::string why = "corrupt PNG file";
    PngReadGuard g;
    g.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &why, PngError, PngWarning);
    g.info = png_create_info_struct(g.png);
    struct Cursor {
        const std::uint8_t *p;
        std::size_t left;
    } cur{f.data(), f.size()};
    Page page;
    std::vector<png_bytep> rows;
    if (setjmp(png_jmpbuf(g.png))) throw FormatError(path + ": " + why);
    png_set_read_fn(g.png, &cur, [](png_structp png, png_bytep out, png_size_t n) {
        auto *c = static_cast<Cursor *>(png_get_io_ptr(png));
        if (n > c->left) png_error(png, "truncated PNG file");
        std::memcpy(out, c->p, n);
        c->p += n, c->left -= n;
    });
    png_read_info(g.png, g.info);
    png_uint_32 w, h;
    int depth, type, interlace;
    png_get_IHDR(g.png, g.info, &w, &h, &depth, &type, &interlace, nullptr, nullptr);
    CheckSize(w, h, path);
    double dpiX = 0, dpiY = 0;
    png_uint_32 rx, ry;
    int unit;
    if (png_get_pHYs(g.png, g.info, &rx, &ry, &unit) && unit == PNG_RESOLUTION_METER) dpiX = rx * 0.0254, dpiY = ry * 0.0254;
    if (depth == 16) png_set_strip_16(g.png);
    if (type & PNG_COLOR_MASK_ALPHA && type != PNG_COLOR_TYPE_RGB_ALPHA) png_set_strip_alpha(g.png);
    int bits;
    std::vector<RGBQUAD> table;
    if (type == PNG_COLOR_TYPE_PALETTE) {
        png_colorp pal;
        int n = 0;
        png_get_PLTE(g.png, g.info, &pal, &n);
        for (int i = 0; i < n; ++i) table.push_back(RGBQUAD{pal[i].blue, pal[i].green, pal[i].red, 0});
        bits = depth == 1 ? 1 : 8;
        if (depth != 1) {
            png_set_packing(g.png);
            table.resize(256, RGBQUAD{0, 0, 0, 0});
        } else {
            table.resize(2, RGBQUAD{0, 0, 0, 0});
        }
    } else if (type == PNG_COLOR_TYPE_GRAY || type == PNG_COLOR_TYPE_GRAY_ALPHA) {
        if (depth == 1) {
            bits = 1;
            table = BitonalTable();
        } else {
            if (depth < 8) png_set_expand_gray_1_2_4_to_8(g.png);
            bits = 8;
            table = GrayTable();
        }
    } else {
        png_set_bgr(g.png);
        bits = type == PNG_COLOR_TYPE_RGB_ALPHA ? 32 : 24;
    }
    png_set_interlace_handling(g.png);
    png_read_update_info(g.png, g.info);
    page = NewPage(static_cast<int>(w), static_cast<int>(h), bits, table, dpiX, dpiY);
    if (!page) throw FormatError(path + ": out of memory");
    {
        Locked p(page.get());
        rows.resize(h);
        for (png_uint_32 y = 0; y < h; ++y) rows[y] = p.displayRow(static_cast<int>(y));
        if (png_get_rowbytes(g.png, g.info) > static_cast<std::size_t>(p.stride())) throw FormatError(path + ": unexpected PNG layout");
        png_read_image(g.png, rows.data());
    }
    std::vector<Page> out;
    out.push_back(std::move(page));
    return out;
}

std::vector<std::uint8_t> EncodePng(const Page &page) {
    Locked p(page.get());
    std::vector<std::uint8_t> out;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        throw FormatError("PNG encoding failed");
    }
    png_set_write_fn(png, &out, [](png_structp s, png_bytep d, png_size_t n) {
        auto *v = static_cast<std::vector<std::uint8_t> *>(png_get_io_ptr(s));
        v->insert(v->end(), d, d + n);
    }, nullptr);
    const int bits = p.bits();
    const bool gray = IsGrayRamp(p);
    std::vector<png_color> pal;
    int type, depth = 8;
    std::vector<std::uint8_t> line;
    if (bits == 1 || bits == 4 || (bits == 8 && !gray)) {
        type = PNG_COLOR_TYPE_PALETTE;
        depth = bits;
        for (std::uint32_t i = 0; i < std::min<std::uint32_t>(p.colors(), 1u << bits); ++i)
            pal.push_back(png_color{p.table()[i].rgbRed, p.table()[i].rgbGreen, p.table()[i].rgbBlue});
        if (pal.empty()) pal.push_back(png_color{0, 0, 0});
        png_set_PLTE(png, info, pal.data(), static_cast<int>(pal.size()));
    } else if (bits == 8) {
        type = PNG_COLOR_TYPE_GRAY;
    } else if (bits == 16) {
        throw FormatError("16-bit pages cannot be written as PNG");
    } else {
        type = bits == 32 ? PNG_COLOR_TYPE_RGB_ALPHA : PNG_COLOR_TYPE_RGB;
        png_set_bgr(png);
    }
    png_set_IHDR(png, info, p.width(), p.height(), depth, type, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    if (p.header()->biXPelsPerMeter > 0 && p.header()->biYPelsPerMeter > 0)
        png_set_pHYs(png, info, p.header()->biXPelsPerMeter, p.header()->biYPelsPerMeter, PNG_RESOLUTION_METER);
    png_set_compression_level(png, 6);
    png_write_info(png, info);
    for (int y = 0; y < p.height(); ++y) png_write_row(png, p.displayRow(y));
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return out;
}

// ---- JPEG -----------------------------------------------------------------------

struct JpegErr {
    jpeg_error_mgr mgr;
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

void JpegFail(j_common_ptr c) {
    auto *e = reinterpret_cast<JpegErr *>(c->err);
    (*c->err->format_message)(c, e->message);
    longjmp(e->jump, 1);
}

std::vector<Page> ReadJpeg(const std::string &path, const std::vector<std::uint8_t> &f) {
    jpeg_decompress_struct d;
    JpegErr err;
    d.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = JpegFail;
    Page page;
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&d);
        throw FormatError(path + ": " + err.message);
    }
    jpeg_create_decompress(&d);
    jpeg_mem_src(&d, f.data(), static_cast<unsigned long>(f.size()));
    jpeg_read_header(&d, TRUE);
    if (d.jpeg_color_space == JCS_CMYK || d.jpeg_color_space == JCS_YCCK) {
        jpeg_destroy_decompress(&d);
        throw FormatError(path + ": CMYK JPEG files are not supported");
    }
    const bool gray = d.num_components == 1;
    d.out_color_space = gray ? JCS_GRAYSCALE : JCS_EXT_BGR;
    jpeg_start_decompress(&d);
    CheckSize(d.output_width, d.output_height, path);
    double dpiX = 0, dpiY = 0;
    if (d.density_unit == 1) dpiX = d.X_density, dpiY = d.Y_density;
    if (d.density_unit == 2) dpiX = d.X_density * 2.54, dpiY = d.Y_density * 2.54;
    page = NewPage(static_cast<int>(d.output_width), static_cast<int>(d.output_height), gray ? 8 : 24,
                   gray ? GrayTable() : std::vector<RGBQUAD>{}, dpiX, dpiY);
    if (!page) {
        jpeg_destroy_decompress(&d);
        throw FormatError(path + ": out of memory");
    }
    {
        Locked p(page.get());
        while (d.output_scanline < d.output_height) {
            JSAMPROW row = p.displayRow(static_cast<int>(d.output_scanline));
            jpeg_read_scanlines(&d, &row, 1);
        }
    }
    jpeg_finish_decompress(&d);
    jpeg_destroy_decompress(&d);
    std::vector<Page> out;
    out.push_back(std::move(page));
    return out;
}

std::vector<std::uint8_t> EncodeJpeg(const Page &page, int quality) {
    Locked p(page.get());
    jpeg_compress_struct c;
    JpegErr err;
    c.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = JpegFail;
    unsigned char *mem = nullptr;
    unsigned long size = 0;
    const bool gray = p.bits() <= 8;
    std::vector<std::uint8_t> line(static_cast<std::size_t>(p.width()) * 3);
    if (setjmp(err.jump)) {
        jpeg_destroy_compress(&c);
        std::free(mem);
        throw FormatError(std::string("JPEG encoding failed: ") + err.message);
    }
    jpeg_create_compress(&c);
    jpeg_mem_dest(&c, &mem, &size);
    c.image_width = p.width();
    c.image_height = p.height();
    c.input_components = gray ? 1 : 3;
    c.in_color_space = gray ? JCS_GRAYSCALE : JCS_EXT_BGR;
    jpeg_set_defaults(&c);
    jpeg_set_quality(&c, quality, TRUE);
    if (p.header()->biXPelsPerMeter > 0) {
        c.density_unit = 1;
        c.X_density = static_cast<UINT16>(std::lround(DpiOf(p.header()->biXPelsPerMeter)));
        c.Y_density = static_cast<UINT16>(std::lround(DpiOf(p.header()->biYPelsPerMeter)));
    }
    jpeg_start_compress(&c, TRUE);
    for (int y = 0; y < p.height(); ++y) {
        if (gray) {
            GrayRow(p, y, line.data());
        } else {
            const std::uint8_t *r = p.displayRow(y);
            const int bpp = p.bits() / 8;
            for (int x = 0; x < p.width(); ++x) std::memcpy(&line[3 * x], r + x * bpp, 3);
        }
        JSAMPROW row = line.data();
        jpeg_write_scanlines(&c, &row, 1);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    std::vector<std::uint8_t> out(mem, mem + size);
    std::free(mem);
    return out;
}

// ---- TIFF -----------------------------------------------------------------------

void TiffQuiet(const char *, const char *, va_list) {}

struct TiffCloser {
    void operator()(TIFF *t) const {
        if (t) TIFFClose(t);
    }
};

Page ReadTiffPage(TIFF *t, const std::string &path) {
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
        if (unit == RESUNIT_NONE) rx = ry = 0;
    }
    const bool simple = planar == PLANARCONFIG_CONTIG && !TIFFIsTiled(t) &&
                        ((bps == 1 && spp == 1 && (photo == PHOTOMETRIC_MINISWHITE || photo == PHOTOMETRIC_MINISBLACK)) ||
                         (bps == 8 && spp == 1 && (photo <= PHOTOMETRIC_MINISBLACK || photo == PHOTOMETRIC_PALETTE)) ||
                         (bps == 8 && (spp == 3 || spp == 4) && photo == PHOTOMETRIC_RGB));
    if (!simple) {
        // Anything else (JPEG-in-TIFF, YCbCr, 16 bits, tiles): through RGBA.
        std::vector<std::uint32_t> rgba(static_cast<std::size_t>(w) * h);
        if (!TIFFReadRGBAImageOriented(t, w, h, rgba.data(), ORIENTATION_TOPLEFT, 0))
            throw FormatError(path + ": unsupported TIFF layout");
        Page page = NewPage(static_cast<int>(w), static_cast<int>(h), 24, {}, rx, ry);
        Locked p(page.get());
        for (std::uint32_t y = 0; y < h; ++y) {
            std::uint8_t *r = p.displayRow(static_cast<int>(y));
            for (std::uint32_t x = 0; x < w; ++x) {
                const std::uint32_t v = rgba[static_cast<std::size_t>(y) * w + x];
                r[3 * x] = TIFFGetB(v), r[3 * x + 1] = TIFFGetG(v), r[3 * x + 2] = TIFFGetR(v);
            }
        }
        return page;
    }
    std::vector<RGBQUAD> table;
    int bits = 24;
    if (bps == 1) {
        bits = 1;
        table = photo == PHOTOMETRIC_MINISWHITE ? std::vector<RGBQUAD>{{255, 255, 255, 0}, {0, 0, 0, 0}} : BitonalTable();
    } else if (spp == 1) {
        bits = 8;
        table = GrayTable();
        if (photo == PHOTOMETRIC_MINISWHITE) std::reverse(table.begin(), table.end());
        std::uint16_t *r, *g, *b;
        if (photo == PHOTOMETRIC_PALETTE && TIFFGetField(t, TIFFTAG_COLORMAP, &r, &g, &b))
            for (int i = 0; i < 256; ++i)
                table[i] = RGBQUAD{static_cast<BYTE>(b[i] >> 8), static_cast<BYTE>(g[i] >> 8), static_cast<BYTE>(r[i] >> 8), 0};
    } else {
        bits = spp == 4 ? 32 : 24;
    }
    Page page = NewPage(static_cast<int>(w), static_cast<int>(h), bits, table, rx, ry);
    if (!page) throw FormatError(path + ": out of memory");
    Locked p(page.get());
    const tmsize_t line = TIFFScanlineSize(t);
    if (line <= 0 || line > p.stride() + 8) throw FormatError(path + ": unexpected TIFF layout");
    std::vector<std::uint8_t> buf(static_cast<std::size_t>(line));
    for (std::uint32_t y = 0; y < h; ++y) {
        if (TIFFReadScanline(t, buf.data(), y, 0) < 0) throw FormatError(path + ": corrupt TIFF data");
        std::uint8_t *r = p.displayRow(static_cast<int>(y));
        if (bits <= 8) {
            std::memcpy(r, buf.data(), std::min<std::size_t>(buf.size(), p.stride()));
        } else {
            for (std::uint32_t x = 0; x < w; ++x) {
                const std::uint8_t *s = &buf[x * spp];
                std::uint8_t *d = r + x * (bits / 8);
                d[0] = s[2], d[1] = s[1], d[2] = s[0];
                if (bits == 32) d[3] = s[3];
            }
        }
    }
    return page;
}

std::vector<Page> ReadTiff(const std::string &path) {
    TIFFSetErrorHandler(TiffQuiet);
    TIFFSetWarningHandler(TiffQuiet);
    std::unique_ptr<TIFF, TiffCloser> t(TIFFOpen(path.c_str(), "r"));
    if (!t) throw FormatError(path + ": corrupt TIFF file");
    std::vector<Page> pages;
    do {
        pages.push_back(ReadTiffPage(t.get(), path));
    } while (TIFFReadDirectory(t.get()));
    return pages;
}

void WriteTiffFile(const std::string &path, const std::vector<const Page *> &pages) {
    TIFFSetErrorHandler(TiffQuiet);
    TIFFSetWarningHandler(TiffQuiet);
    std::unique_ptr<TIFF, TiffCloser> t(TIFFOpen(path.c_str(), "w"));
    if (!t) throw FormatError(path + ": cannot create file");
    for (std::size_t i = 0; i < pages.size(); ++i) {
        Locked p(pages[i]->get());
        TIFF *tf = t.get();
        const int bits = p.bits();
        TIFFSetField(tf, TIFFTAG_IMAGEWIDTH, p.width());
        TIFFSetField(tf, TIFFTAG_IMAGELENGTH, p.height());
        TIFFSetField(tf, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(tf, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
        if (pages.size() > 1) {
            TIFFSetField(tf, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
            TIFFSetField(tf, TIFFTAG_PAGENUMBER, static_cast<std::uint16_t>(i), static_cast<std::uint16_t>(pages.size()));
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
                if (IsGrayRamp(p)) std::memcpy(line.data(), r, line.size());
                else GrayRow(p, y, line.data());
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
}

// ---- PNM ------------------------------------------------------------------------

std::vector<Page> ReadPnm(const std::string &path, const std::vector<std::uint8_t> &f) {
    std::size_t pos = 2;
    auto next = [&]() -> long long {
        for (;;) {
            while (pos < f.size() && std::isspace(f[pos])) ++pos;
            if (pos < f.size() && f[pos] == '#') {
                while (pos < f.size() && f[pos] != '\n') ++pos;
                continue;
            }
            break;
        }
        long long v = 0;
        bool any = false;
        while (pos < f.size() && std::isdigit(f[pos]) && v < (1LL << 40)) v = v * 10 + (f[pos++] - '0'), any = true;
        if (!any) throw FormatError(path + ": corrupt PNM header");
        return v;
    };
    const char kind = static_cast<char>(f[1]);
    const long long w = next(), h = next();
    const bool bitmap = kind == '1' || kind == '4';
    const long long maxval = bitmap ? 1 : next();
    CheckSize(w, h, path);
    if (maxval <= 0 || maxval > 255) throw FormatError(path + ": PNM files of more than 8 bits per sample are not supported");
    const bool ascii = kind <= '3';
    if (!ascii) ++pos;  // the single whitespace after the header
    const int channels = (kind == '3' || kind == '6') ? 3 : 1;
    Page page = NewPage(static_cast<int>(w), static_cast<int>(h), bitmap ? 1 : channels == 3 ? 24 : 8,
                        bitmap ? std::vector<RGBQUAD>{{255, 255, 255, 0}, {0, 0, 0, 0}} : channels == 1 ? GrayTable() : std::vector<RGBQUAD>{});
    Locked p(page.get());
    for (long long y = 0; y < h; ++y) {
        std::uint8_t *r = p.displayRow(static_cast<int>(y));
        if (bitmap && !ascii) {
            const std::size_t n = static_cast<std::size_t>((w + 7) / 8);
            if (pos + n > f.size()) throw FormatError(path + ": truncated PNM data");
            std::memcpy(r, &f[pos], n);  // 1 is black, as in the table
            pos += n;
            continue;
        }
        for (long long x = 0; x < w; ++x) {
            for (int c = 0; c < channels; ++c) {
                long long v;
                if (ascii) {
                    v = next();
                } else {
                    if (pos >= f.size()) throw FormatError(path + ": truncated PNM data");
                    v = f[pos++];
                }
                v = v * 255 / maxval;
                if (bitmap) {
                    if (v) r[x >> 3] |= static_cast<std::uint8_t>(0x80 >> (x & 7));
                } else if (channels == 1) {
                    r[x] = static_cast<std::uint8_t>(v);
                } else {
                    r[x * 3 + (2 - c)] = static_cast<std::uint8_t>(v);
                }
            }
        }
    }
    std::vector<Page> out;
    out.push_back(std::move(page));
    return out;
}

std::vector<std::uint8_t> EncodePnm(const Page &page) {
    Locked p(page.get());
    const int w = p.width(), h = p.height(), bits = p.bits();
    std::string head;
    std::vector<std::uint8_t> out;
    if (bits == 1) {
        head = "P4\n" + std::to_string(w) + " " + std::to_string(h) + "\n";
        out.assign(head.begin(), head.end());
        const bool flip = Luma(p.table()[0]) < Luma(p.table()[1]);  // 1 must mean black
        for (int y = 0; y < h; ++y) {
            const std::uint8_t *r = p.displayRow(y);
            for (int k = 0; k < (w + 7) / 8; ++k) out.push_back(flip ? static_cast<std::uint8_t>(~r[k]) : r[k]);
        }
        return out;
    }
    const bool colour = bits >= 24;
    head = std::string(colour ? "P6\n" : "P5\n") + std::to_string(w) + " " + std::to_string(h) + "\n255\n";
    out.assign(head.begin(), head.end());
    std::vector<std::uint8_t> line(w);
    for (int y = 0; y < h; ++y) {
        if (!colour) {
            GrayRow(p, y, line.data());
            out.insert(out.end(), line.begin(), line.end());
            continue;
        }
        const std::uint8_t *r = p.displayRow(y);
        for (int x = 0; x < w; ++x) {
            const std::uint8_t *q = r + x * (bits / 8);
            out.push_back(q[2]), out.push_back(q[1]), out.push_back(q[0]);
        }
    }
    return out;
}

std::string TempBeside(const std::string &path) {
    std::random_device rd;
    return path + ".tmp-" + std::to_string(getpid()) + "-" + std::to_string(rd() % 100000);
}

void WriteBytes(const std::string &path, const std::vector<std::uint8_t> &bytes) {
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f) throw FormatError(path + ": cannot create file");
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    const bool closed = std::fflush(f) == 0 && fsync(fileno(f)) == 0;
    std::fclose(f);
    if (!ok || !closed) throw FormatError(path + ": write failed (disk full?)");
}

}  // namespace

Format FormatOfPath(const std::string &path) {
    const std::size_t dot = path.find_last_of('.');
    if (dot == std::string::npos) return Format::kUnknown;
    const std::string ext = Lower(path.substr(dot + 1));
    if (ext == "bmp" || ext == "dib") return Format::kBmp;
    if (ext == "png") return Format::kPng;
    if (ext == "tif" || ext == "tiff") return Format::kTiff;
    if (ext == "jpg" || ext == "jpeg") return Format::kJpeg;
    if (ext == "pbm" || ext == "pgm" || ext == "ppm" || ext == "pnm") return Format::kPnm;
    return Format::kUnknown;
}

const char *FormatName(Format f) {
    switch (f) {
        case Format::kBmp: return "BMP";
        case Format::kPng: return "PNG";
        case Format::kTiff: return "TIFF";
        case Format::kJpeg: return "JPEG";
        case Format::kPnm: return "PNM";
        default: return "unknown";
    }
}

bool MultiPage(Format f) { return f == Format::kTiff; }

std::vector<Page> ReadImage(const std::string &path) {
    const std::vector<std::uint8_t> f = Slurp(path);
    if (f.size() < 4) throw FormatError(path + ": not an image file (too short)");
    if (f[0] == 'B' && f[1] == 'M') return ReadBmp(path, f);
    if (f[0] == 0x89 && f[1] == 'P' && f[2] == 'N' && f[3] == 'G') return ReadPng(path, f);
    if ((f[0] == 'I' && f[1] == 'I' && f[2] == 42) || (f[0] == 'M' && f[1] == 'M' && f[3] == 42)) return ReadTiff(path);
    if (f[0] == 0xFF && f[1] == 0xD8) return ReadJpeg(path, f);
    if (f[0] == 'P' && f[1] >= '1' && f[1] <= '6') return ReadPnm(path, f);
    throw FormatError(path + ": unsupported file format");
}

void WriteImage(const std::string &path, const std::vector<const Page *> &pages, int jpegQuality) {
    const Format fmt = FormatOfPath(path);
    if (fmt == Format::kUnknown) throw FormatError(path + ": unknown output format (use .bmp .png .tif .jpg .pbm .pgm .ppm)");
    if (pages.empty()) throw FormatError(path + ": nothing to write");
    if (pages.size() > 1 && !MultiPage(fmt)) throw FormatError(path + ": " + FormatName(fmt) + " holds one page");
    for (const Page *p : pages) {
        Locked l(p->get());
        if (!l.ok()) throw FormatError(path + ": not a page");
        if (fmt == Format::kJpeg && l.bits() == 1) throw FormatError(path + ": 1-bit pages are not written as JPEG");
    }
    const std::string tmp = TempBeside(path);
    try {
        switch (fmt) {
            case Format::kBmp: WriteBytes(tmp, EncodeBmp(*pages[0])); break;
            case Format::kPng: WriteBytes(tmp, EncodePng(*pages[0])); break;
            case Format::kJpeg: WriteBytes(tmp, EncodeJpeg(*pages[0], jpegQuality)); break;
            case Format::kPnm: WriteBytes(tmp, EncodePnm(*pages[0])); break;
            case Format::kTiff: WriteTiffFile(tmp, pages); break;
            default: break;
        }
        if (std::rename(tmp.c_str(), path.c_str()) != 0) throw FormatError(path + ": cannot move the output into place");
    } catch (...) {
        std::remove(tmp.c_str());
        throw;
    }
}

}  // namespace qtool
