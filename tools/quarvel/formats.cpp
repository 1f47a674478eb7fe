// File formats through the established libraries: libpng, libtiff and
// libjpeg(-turbo); BMP and PNM are read and written directly.
//
// Every reader checks what a header claims before it allocates: each side at
// most kMaxSide, the page at most PixelLimit() pixels, and the data the
// claim needs must fit in the file. Uncompressed data (BMP, PNM, plain TIFF)
// must be there byte for byte; compressed data may be at most as small as
// the format's densest possible coding allows (deflate: 1032 bytes out per
// byte in, PackBits 64, LZW about 1300, JPEG one bit per 8 x 8 block), so a
// tiny file claiming a huge page is refused before a page is allocated.
// Palette pages are read through their palette: gray palettes become gray
// levels, colour palettes 24-bit colour; 2- and 4-bit pages become 8-bit and
// 16-bit pages 24-bit. libpng and libjpeg report errors by longjmp, so their
// decoders keep every C++ object outside the frame that calls setjmp.
#include "formats.h"

#include <jerror.h>
#include <jpeglib.h>
#include <png.h>
#include <sys/stat.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "files.h"

namespace qtool {

namespace {

std::atomic<long long> pixelLimit{kDefaultPixelLimit};

// Pages up to this size are allocated for any TIFF claim that passes the
// limits; larger ones must be plausible against the file's size.
constexpr std::uint64_t kTrustedBytes = 32u << 20;

std::string Lower(std::string s) {
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

void CheckSize(long long w, long long h, const std::string &path) {
    if (w <= 0 || h <= 0 || w > kMaxSide || h > kMaxSide)
        throw FormatError(path + ": unsupported image size " + std::to_string(w) + " x " + std::to_string(h) +
                          " (each side 1 to " + std::to_string(kMaxSide) + ")");
    if (w * h > PixelLimit())
        throw FormatError(path + ": " + std::to_string(w) + " x " + std::to_string(h) +
                          " pixels is over the limit of " + std::to_string(PixelLimit() / 1000000) +
                          " megapixels (see --max-megapixels)");
}

[[noreturn]] void Implausible(const std::string &path, long long w, long long h, std::uint64_t bytes) {
    throw FormatError(path + ": truncated or corrupt file (claims " + std::to_string(w) + " x " + std::to_string(h) +
                      " pixels but holds only " + std::to_string(bytes) + " bytes of data)");
}

std::uint64_t FileSize(const std::string &path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) throw FormatError(path + ": cannot open file (" + std::strerror(errno) + ")");
    if (S_ISDIR(st.st_mode)) throw FormatError(path + ": is a directory, not an image file");
    if (!S_ISREG(st.st_mode)) throw FormatError(path + ": not a regular file");
    return static_cast<std::uint64_t>(st.st_size);
}

std::vector<std::uint8_t> Slurp(const std::string &path) {
    const std::uint64_t size = FileSize(path);
    std::ifstream in(path, std::ios::binary);
    if (!in) throw FormatError(path + ": cannot open file (" + std::strerror(errno) + ")");
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
    in.read(reinterpret_cast<char *>(bytes.data()), static_cast<std::streamsize>(size));
    bytes.resize(static_cast<std::size_t>(in.gcount()));
    return bytes;
}

bool IsGrayRamp(const Locked &p) {
    if (p.bits() != 8 || p.colors() != 256) return false;
    const RGBQUAD *t = p.table();
    for (int i = 0; i < 256; ++i)
        if (t[i].rgbBlue != i || t[i].rgbGreen != i || t[i].rgbRed != i) return false;
    return true;
}

int Luma(const RGBQUAD &c) {
    return (c.rgbRed * 299 + c.rgbGreen * 587 + c.rgbBlue * 114 + 500) / 1000;
}

// Row `y` (top first) as 8-bit gray levels through the colour table, or as
// luma for colour pages.
void GrayRow(const Locked &p, int y, std::uint8_t *out) {
    const std::uint8_t *r = p.displayRow(y);
    const RGBQUAD *t = p.table();
    for (int x = 0; x < p.width(); ++x) {
        switch (p.bits()) {
            case 1:
                out[x] = static_cast<std::uint8_t>(Luma(t[(r[x >> 3] >> (7 - (x & 7))) & 1]));
                break;
            case 4:
                out[x] = static_cast<std::uint8_t>(Luma(t[(x & 1) ? r[x >> 1] & 15 : r[x >> 1] >> 4]));
                break;
            case 8:
                out[x] = static_cast<std::uint8_t>(Luma(t[r[x]]));
                break;
            default: {
                const std::uint8_t *q = r + x * (p.bits() / 8);
                out[x] = static_cast<std::uint8_t>((q[2] * 299 + q[1] * 587 + q[0] * 114 + 500) / 1000);
            }
        }
    }
}

// An 8-bit page of palette indices (table of 256 entries) read through its
// palette: gray levels when every entry is gray, else 24-bit colour.
Page ThroughPalette(Page page, const std::string &path) {
    RGBQUAD table[256];
    int w, h;
    {
        Locked p(page.get());
        if (!p.ok() || p.bits() != 8 || p.colors() != 256 || IsGrayRamp(p)) return page;
        std::memcpy(table, p.table(), sizeof table);
        w = p.width(), h = p.height();
    }
    const bool gray = std::all_of(table, table + 256,
                                  [](const RGBQUAD &c) { return c.rgbRed == c.rgbGreen && c.rgbGreen == c.rgbBlue; });
    Locked p(page.get());
    if (gray) {
        for (int y = 0; y < h; ++y)
            for (std::uint8_t *r = p.row(y), *e = r + w; r < e; ++r) *r = table[*r].rgbRed;
        std::memcpy(p.table(), GrayTable().data(), sizeof table);
        return page;
    }
    Page colour = NewPage(w, h, 24, {}, DpiOf(p.header()->biXPelsPerMeter), DpiOf(p.header()->biYPelsPerMeter));
    if (!colour) throw FormatError(path + ": out of memory");
    Locked c(colour.get());
    for (int y = 0; y < h; ++y) {
        const std::uint8_t *s = p.row(y);
        std::uint8_t *d = c.row(y);
        for (int x = 0; x < w; ++x, d += 3) {
            const RGBQUAD &q = table[s[x]];
            d[0] = q.rgbBlue, d[1] = q.rgbGreen, d[2] = q.rgbRed;
        }
    }
    return colour;
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

std::vector<Page> One(Page page) {
    std::vector<Page> out;
    out.push_back(std::move(page));
    return out;
}

// ---- BMP ------------------------------------------------------------------------

int LowBit(std::uint32_t m) {
    return m == 0 ? 0 : __builtin_ctz(m);
}

std::uint8_t MaskedLevel(std::uint32_t v, std::uint32_t mask) {
    if (mask == 0) return 0;
    const std::uint32_t top = mask >> LowBit(mask);
    return static_cast<std::uint8_t>(((v & mask) >> LowBit(mask)) * 255u / top);
}

std::vector<Page> ReadBmp(const std::string &path, const std::vector<std::uint8_t> &f) {
    if (f.size() < 54) throw FormatError(path + ": truncated BMP file");
    auto u32 = [&](std::size_t o) {
        std::uint32_t v;
        std::memcpy(&v, &f[o], 4);
        return v;
    };
    const std::uint32_t offBits = u32(10), hdrSize = u32(14);
    if (hdrSize < 40 || hdrSize > f.size() - 14) throw FormatError(path + ": unsupported BMP header");
    BITMAPINFOHEADER h;
    std::memcpy(&h, &f[14], 40);
    const int bits = h.biBitCount;
    const bool fields = h.biCompression == 3 && (bits == 16 || bits == 32);
    if (h.biCompression != 0 && !fields) throw FormatError(path + ": compressed BMP files are not supported");
    if (bits != 1 && bits != 2 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32)
        throw FormatError(path + ": unsupported BMP depth " + std::to_string(bits));
    const bool topDown = h.biHeight < 0;
    const long long w = h.biWidth, hh = topDown ? -static_cast<long long>(h.biHeight) : h.biHeight;
    CheckSize(w, hh, path);
    std::uint32_t masks[3] = {0x7C00, 0x03E0, 0x001F};  // red, green, blue of 16-bit pages
    std::size_t tableAt = 14 + hdrSize;
    if (fields) {
        const std::size_t at = hdrSize >= 52 ? 54 : 14 + hdrSize;
        if (at + 12 > f.size()) throw FormatError(path + ": truncated BMP header");
        for (int k = 0; k < 3; ++k) masks[k] = u32(at + 4 * k);
        if (hdrSize < 52) tableAt += 12;
    }
    const std::uint32_t full = bits <= 8 ? 1u << bits : 0;
    const std::uint32_t colors = bits <= 8 ? (h.biClrUsed != 0 ? h.biClrUsed : full) : 0;
    if (colors > full) throw FormatError(path + ": bad BMP colour table");
    if (tableAt + 4ull * colors > f.size()) throw FormatError(path + ": truncated BMP colour table");
    std::vector<RGBQUAD> table(colors);
    if (colors) std::memcpy(table.data(), &f[tableAt], 4 * colors);
    const std::size_t stride = ((static_cast<std::size_t>(w) * bits + 31) / 32) * 4;
    if (offBits > f.size() || stride * hh > f.size() - offBits) Implausible(path, w, hh, f.size());
    const int pageBits = bits == 2 || bits == 4 ? 8 : bits == 16 ? 24 : bits;
    if (pageBits == 8) table.resize(256, RGBQUAD{0, 0, 0, 0});
    if (pageBits == 1) table.resize(2, RGBQUAD{0, 0, 0, 0});
    Page page = NewPage(static_cast<int>(w), static_cast<int>(hh), pageBits, table, DpiOf(h.biXPelsPerMeter),
                        DpiOf(h.biYPelsPerMeter));
    if (!page) throw FormatError(path + ": out of memory");
    {
        Locked p(page.get());
        for (long long y = 0; y < hh; ++y) {
            const std::uint8_t *s = &f[offBits + (topDown ? hh - 1 - y : y) * stride];
            std::uint8_t *d = p.row(static_cast<int>(y));
            if (bits == pageBits) {
                std::memcpy(d, s, stride);
            } else if (bits == 16) {
                for (long long x = 0; x < w; ++x, d += 3) {
                    const std::uint32_t v = s[2 * x] | s[2 * x + 1] << 8;
                    d[0] = MaskedLevel(v, masks[2]), d[1] = MaskedLevel(v, masks[1]), d[2] = MaskedLevel(v, masks[0]);
                }
            } else {
                const int per = 8 / bits;
                for (long long x = 0; x < w; ++x)
                    d[x] = static_cast<std::uint8_t>((s[x / per] >> (8 - bits * (x % per + 1))) & ((1 << bits) - 1));
            }
        }
    }
    return One(pageBits == 8 ? ThroughPalette(std::move(page), path) : std::move(page));
}

std::vector<std::uint8_t> EncodeBmp(const Page &page) {
    Locked p(page.get());
    const std::size_t dib = 40 + 4 * p.colors() + static_cast<std::size_t>(p.stride()) * p.height();
    std::vector<std::uint8_t> out(14 + dib);
    const std::uint32_t size = static_cast<std::uint32_t>(out.size()),
                        off = static_cast<std::uint32_t>(14 + 40 + 4 * p.colors());
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

struct PngInput {
    const std::uint8_t *p;
    std::size_t left;
};

// What the PNG decoder fills; owned by its caller, outside the setjmp frame.
struct PngState {
    const std::string *path;
    std::string why = "corrupt PNG file";
    std::vector<RGBQUAD> table;
    std::vector<png_bytep> rows;
    Page page;
    bool palette = false;
};

void PngError(png_structp png, png_const_charp msg) {
    static_cast<PngState *>(png_get_error_ptr(png))->why = msg;
    png_longjmp(png, 1);
}
void PngWarning(png_structp, png_const_charp) {}

void PngRead(png_structp png, png_bytep out, png_size_t n) {
    auto *c = static_cast<PngInput *>(png_get_io_ptr(png));
    if (n > c->left) png_error(png, "truncated PNG file");
    std::memcpy(out, c->p, n);
    c->p += n, c->left -= n;
}

// Decodes into s->page; false when libpng reported an error (s->why).
bool DecodePng(const std::vector<std::uint8_t> &f, PngState *s) {
    PngReadGuard g;
    PngInput input{f.data(), f.size()};
    g.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, s, PngError, PngWarning);
    if (g.png == nullptr) return false;
    g.info = png_create_info_struct(g.png);
    if (g.info == nullptr) return false;
    if (setjmp(png_jmpbuf(g.png))) return false;
    png_set_read_fn(g.png, &input, PngRead);
    png_read_info(g.png, g.info);
    png_uint_32 w, h;
    int depth, type, interlace;
    png_get_IHDR(g.png, g.info, &w, &h, &depth, &type, &interlace, nullptr, nullptr);
    CheckSize(w, h, *s->path);
    const int channels = png_get_channels(g.png, g.info);
    const std::uint64_t raw =
        static_cast<std::uint64_t>(h) * (1 + (static_cast<std::uint64_t>(w) * channels * depth + 7) / 8);
    if (raw / 1032 > f.size()) Implausible(*s->path, w, h, f.size());
    double dpiX = 0, dpiY = 0;
    png_uint_32 rx, ry;
    int unit;
    if (png_get_pHYs(g.png, g.info, &rx, &ry, &unit) && unit == PNG_RESOLUTION_METER)
        dpiX = DpiOf(rx), dpiY = DpiOf(ry);
    if (depth == 16) png_set_strip_16(g.png);
    if (type & PNG_COLOR_MASK_ALPHA && type != PNG_COLOR_TYPE_RGB_ALPHA) png_set_strip_alpha(g.png);
    int bits;
    if (type == PNG_COLOR_TYPE_PALETTE) {
        png_colorp pal = nullptr;
        int n = 0;
        png_get_PLTE(g.png, g.info, &pal, &n);
        for (int i = 0; i < n; ++i) s->table.push_back(RGBQUAD{pal[i].blue, pal[i].green, pal[i].red, 0});
        bits = depth == 1 ? 1 : 8;
        if (depth != 1) png_set_packing(g.png);
        s->table.resize(depth == 1 ? 2 : 256, RGBQUAD{0, 0, 0, 0});
        s->palette = depth != 1;
    } else if (type == PNG_COLOR_TYPE_GRAY || type == PNG_COLOR_TYPE_GRAY_ALPHA) {
        if (depth == 1) {
            bits = 1;
            s->table = BitonalTable();
        } else {
            if (depth < 8) png_set_expand_gray_1_2_4_to_8(g.png);
            bits = 8;
            s->table = GrayTable();
        }
    } else {
        png_set_bgr(g.png);
        bits = type == PNG_COLOR_TYPE_RGB_ALPHA ? 32 : 24;
    }
    png_set_interlace_handling(g.png);
    png_read_update_info(g.png, g.info);
    s->page = NewPage(static_cast<int>(w), static_cast<int>(h), bits, s->table, dpiX, dpiY);
    if (!s->page) throw FormatError(*s->path + ": out of memory");
    {
        Locked p(s->page.get());
        if (png_get_rowbytes(g.png, g.info) > p.stride()) throw FormatError(*s->path + ": unexpected PNG layout");
        s->rows.resize(h);
        for (png_uint_32 y = 0; y < h; ++y) s->rows[y] = p.displayRow(static_cast<int>(y));
    }  // blocks never move, so the row pointers stay valid unlocked
    png_read_image(g.png, s->rows.data());
    return true;
}

std::vector<Page> ReadPng(const std::string &path, const std::vector<std::uint8_t> &f) {
    PngState s;
    s.path = &path;
    if (!DecodePng(f, &s)) throw FormatError(path + ": " + s.why);
    return One(s.palette ? ThroughPalette(std::move(s.page), path) : std::move(s.page));
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
    png_set_write_fn(
        png, &out,
        [](png_structp s, png_bytep d, png_size_t n) {
            auto *v = static_cast<std::vector<std::uint8_t> *>(png_get_io_ptr(s));
            v->insert(v->end(), d, d + n);
        },
        nullptr);
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

// A warning means data is missing or damaged (the decoder would fill the
// rest with gray), so it fails the file; bytes after the image's end are
// only noted.
void JpegMessage(j_common_ptr c, int level) {
    if (level == -1 && c->err->msg_code != JWRN_EXTRANEOUS_DATA) JpegFail(c);
}

struct JpegState {
    const std::string *path;
    Page page;
    std::string why;
};

bool DecodeJpeg(const std::vector<std::uint8_t> &f, JpegState *s) {
    jpeg_decompress_struct d;
    JpegErr err;
    d.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = JpegFail;
    err.mgr.emit_message = JpegMessage;
    jpeg_create_decompress(&d);
    if (setjmp(err.jump)) {
        s->why = err.message;
        jpeg_destroy_decompress(&d);
        return false;
    }
    jpeg_mem_src(&d, f.data(), static_cast<unsigned long>(f.size()));
    jpeg_read_header(&d, TRUE);
    if (d.jpeg_color_space == JCS_CMYK || d.jpeg_color_space == JCS_YCCK) {
        s->why = "CMYK JPEG files are not supported";
        jpeg_destroy_decompress(&d);
        return false;
    }
    // Each 8 x 8 block of the first component takes at least one bit.
    const long long w = d.image_width, h = d.image_height;
    try {
        CheckSize(w, h, *s->path);
    } catch (...) {
        jpeg_destroy_decompress(&d);
        throw;
    }
    if (w * h / 512 > static_cast<long long>(f.size())) {
        jpeg_destroy_decompress(&d);
        Implausible(*s->path, w, h, f.size());
    }
    const bool gray = d.num_components == 1;
    d.out_color_space = gray ? JCS_GRAYSCALE : JCS_EXT_BGR;
    jpeg_start_decompress(&d);
    double dpiX = 0, dpiY = 0;
    if (d.density_unit == 1) dpiX = d.X_density, dpiY = d.Y_density;
    if (d.density_unit == 2) dpiX = d.X_density * 2.54, dpiY = d.Y_density * 2.54;
    s->page = NewPage(static_cast<int>(d.output_width), static_cast<int>(d.output_height), gray ? 8 : 24,
                      gray ? GrayTable() : std::vector<RGBQUAD>{}, dpiX, dpiY);
    if (!s->page) {
        s->why = "out of memory";
        jpeg_destroy_decompress(&d);
        return false;
    }
    std::uint8_t *top;
    std::size_t stride;
    {
        Locked p(s->page.get());
        top = p.displayRow(0), stride = p.stride();
    }  // blocks never move, so the rows stay valid unlocked
    while (d.output_scanline < d.output_height) {
        JSAMPROW row = top - d.output_scanline * stride;
        jpeg_read_scanlines(&d, &row, 1);
    }
    jpeg_finish_decompress(&d);
    jpeg_destroy_decompress(&d);
    return true;
}

std::vector<Page> ReadJpeg(const std::string &path, const std::vector<std::uint8_t> &f) {
    JpegState s;
    s.path = &path;
    if (!DecodeJpeg(f, &s)) throw FormatError(path + ": " + s.why);
    return One(std::move(s.page));
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

// ---- PNM ------------------------------------------------------------------------

std::vector<Page> ReadPnm(const std::string &path, const std::vector<std::uint8_t> &f) {
    std::size_t pos = 2;
    auto skip = [&] {
        for (;;) {
            while (pos < f.size() && std::isspace(f[pos])) ++pos;
            if (pos >= f.size() || f[pos] != '#') return;
            while (pos < f.size() && f[pos] != '\n') ++pos;
        }
    };
    auto number = [&](long long most, const char *what) -> long long {
        skip();
        long long v = 0;
        bool any = false;
        for (; pos < f.size() && std::isdigit(f[pos]); ++pos, any = true)
            if ((v = v * 10 + (f[pos] - '0')) > most) throw FormatError(path + ": PNM " + what + " out of range");
        if (!any) throw FormatError(path + ": corrupt PNM header");
        return v;
    };
    const char kind = static_cast<char>(f[1]);
    const bool bitmap = kind == '1' || kind == '4', ascii = kind <= '3';
    const int channels = (kind == '3' || kind == '6') ? 3 : 1;
    const long long w = number(INT32_MAX, "width"), h = number(INT32_MAX, "height");
    const long long maxval = bitmap ? 1 : number(65535, "maximum value");
    CheckSize(w, h, path);
    if (maxval == 0) throw FormatError(path + ": corrupt PNM header (maximum value 0)");
    if (!ascii) ++pos;  // the single whitespace after the header
    const std::size_t left = pos < f.size() ? f.size() - pos : 0;
    const int sampleBytes = maxval > 255 ? 2 : 1;
    const std::uint64_t need = ascii    ? static_cast<std::uint64_t>(w) * h * channels
                               : bitmap ? static_cast<std::uint64_t>((w + 7) / 8) * h
                                        : static_cast<std::uint64_t>(w) * h * channels * sampleBytes;
    if (need > left) Implausible(path, w, h, left);
    Page page = NewPage(static_cast<int>(w), static_cast<int>(h),
                        bitmap          ? 1
                        : channels == 3 ? 24
                                        : 8,
                        bitmap          ? std::vector<RGBQUAD>{{255, 255, 255, 0}, {0, 0, 0, 0}}
                        : channels == 1 ? GrayTable()
                                        : std::vector<RGBQUAD>{});
    if (!page) throw FormatError(path + ": out of memory");
    Locked p(page.get());
    for (long long y = 0; y < h; ++y) {
        std::uint8_t *r = p.displayRow(static_cast<int>(y));
        if (bitmap && !ascii) {
            std::memcpy(r, &f[pos], static_cast<std::size_t>((w + 7) / 8));  // 1 is black, as in the table
            pos += static_cast<std::size_t>((w + 7) / 8);
            continue;
        }
        for (long long x = 0; x < w; ++x) {
            for (int c = 0; c < channels; ++c) {
                long long v;
                if (kind == '1') {  // plain PBM digits need no separator
                    skip();
                    if (pos >= f.size() || (f[pos] != '0' && f[pos] != '1'))
                        throw FormatError(path + ": truncated or corrupt PNM data");
                    v = f[pos++] - '0';
                } else if (ascii) {
                    if (skip(), pos >= f.size()) throw FormatError(path + ": truncated PNM data");
                    v = std::min(number(1 << 30, "sample"), maxval);
                } else if (sampleBytes == 2) {
                    v = std::min<long long>(f[pos] << 8 | f[pos + 1], maxval);
                    pos += 2;
                } else {
                    v = std::min<long long>(f[pos++], maxval);
                }
                if (bitmap) {
                    if (v) r[x >> 3] |= static_cast<std::uint8_t>(0x80 >> (x & 7));
                } else if (channels == 1) {
                    r[x] = static_cast<std::uint8_t>((v * 255 + maxval / 2) / maxval);
                } else {
                    r[x * 3 + (2 - c)] = static_cast<std::uint8_t>((v * 255 + maxval / 2) / maxval);
                }
            }
        }
    }
    return One(std::move(page));
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

// Writes a new temporary file (registered, so an interrupt removes it).
void WriteTemp(const std::string &temp, const std::string &target, const std::vector<std::uint8_t> &bytes) {
    FILE *f = nullptr;
    if (!CreateTemp(temp, [&] { return (f = std::fopen(temp.c_str(), "wb")) != nullptr; }))
        throw FormatError(target + ": cannot create file (" + std::strerror(errno) + ")");
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    const bool flushed = std::fflush(f) == 0 && fsync(fileno(f)) == 0;
    std::fclose(f);
    if (!ok || !flushed) throw FormatError(target + ": write failed (disk full?)");
}

std::vector<std::uint8_t> Encode(Format fmt, const Page &page, int quality) {
    switch (fmt) {
        case Format::kBmp:
            return EncodeBmp(page);
        case Format::kPng:
            return EncodePng(page);
        case Format::kJpeg:
            return EncodeJpeg(page, quality);
        default:
            return EncodePnm(page);
    }
}

Format Sniff(const std::uint8_t *b, std::size_t n) {
    if (n < 4) return Format::kUnknown;
    if (b[0] == 'B' && b[1] == 'M') return Format::kBmp;
    if (b[0] == 0x89 && b[1] == 'P' && b[2] == 'N' && b[3] == 'G') return Format::kPng;
    if ((b[0] == 'I' && b[1] == 'I' && b[2] == 42 && b[3] == 0) ||
        (b[0] == 'M' && b[1] == 'M' && b[2] == 0 && b[3] == 42))
        return Format::kTiff;
    if (b[0] == 0xFF && b[1] == 0xD8) return Format::kJpeg;
    if (b[0] == 'P' && b[1] >= '1' && b[1] <= '6') return Format::kPnm;
    return Format::kUnknown;
}

}  // namespace

void SetPixelLimit(long long pixels) {
    pixelLimit = pixels;
}
long long PixelLimit() {
    return pixelLimit;
}

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
        case Format::kBmp:
            return "BMP";
        case Format::kPng:
            return "PNG";
        case Format::kTiff:
            return "TIFF";
        case Format::kJpeg:
            return "JPEG";
        case Format::kPnm:
            return "PNM";
        default:
            return "unknown";
    }
}

bool MultiPage(Format f) {
    return f == Format::kTiff;
}

// ---- Reading page by page ---------------------------------------------------------

struct ImageReader::Impl {
    std::string path;
    Format format = Format::kUnknown;
    std::uint64_t size = 0;
    std::size_t pages = 1, read = 0;
    std::unique_ptr<TIFF, TiffCloser> tiff;
};

ImageReader::ImageReader(const std::string &path) : impl_(std::make_unique<Impl>()) {
    impl_->path = path;
    impl_->size = FileSize(path);
    std::uint8_t magic[4] = {0, 0, 0, 0};
    {
        std::ifstream in(path, std::ios::binary);
        if (!in) throw FormatError(path + ": cannot open file (" + std::strerror(errno) + ")");
        in.read(reinterpret_cast<char *>(magic), 4);
        if (in.gcount() < 4) throw FormatError(path + ": not an image file (too short)");
    }
    impl_->format = Sniff(magic, 4);
    if (impl_->format == Format::kUnknown) throw FormatError(path + ": unsupported file format");
    if (impl_->format == Format::kTiff) {
        TIFFSetErrorHandler(TiffQuiet);
        TIFFSetWarningHandler(TiffQuiet);
        impl_->tiff.reset(TIFFOpen(path.c_str(), "r"));
        if (!impl_->tiff) throw FormatError(path + ": corrupt TIFF file");
        impl_->pages = TIFFNumberOfDirectories(impl_->tiff.get());
        if (impl_->pages == 0) throw FormatError(path + ": corrupt TIFF file (no pages)");
    }
}

ImageReader::~ImageReader() = default;

std::size_t ImageReader::pages() const {
    return impl_->pages;
}

Page ImageReader::next() {
    Impl &m = *impl_;
    if (m.read >= m.pages) throw FormatError(m.path + ": no page " + std::to_string(m.read + 1));
    const std::size_t index = m.read++;
    if (m.format == Format::kTiff) {
        if (index > 0 && !TIFFReadDirectory(m.tiff.get()))
            throw FormatError(m.path + ": corrupt TIFF file (page " + std::to_string(index + 1) + ")");
        return ReadTiffPage(m.tiff.get(), m.path, m.size);
    }
    const std::vector<std::uint8_t> f = Slurp(m.path);
    if (Sniff(f.data(), f.size()) != m.format) throw FormatError(m.path + ": the file changed while it was read");
    std::vector<Page> one;
    switch (m.format) {
        case Format::kBmp:
            one = ReadBmp(m.path, f);
            break;
        case Format::kPng:
            one = ReadPng(m.path, f);
            break;
        case Format::kJpeg:
            one = ReadJpeg(m.path, f);
            break;
        default:
            one = ReadPnm(m.path, f);
            break;
    }
    return std::move(one.front());
}

std::vector<Page> ReadImage(const std::string &path) {
    ImageReader reader(path);
    std::vector<Page> pages;
    for (std::size_t i = 0; i < reader.pages(); ++i) pages.push_back(reader.next());
    return pages;
}

// ---- Writing page by page ---------------------------------------------------------

std::vector<std::string> OutputNames(const std::string &path, std::size_t pages) {
    if (pages <= 1 || MultiPage(FormatOfPath(path))) return {path};
    const std::size_t slash = path.find_last_of('/'), dot = path.find_last_of('.');
    const std::size_t cut = dot != std::string::npos && (slash == std::string::npos || dot > slash) ? dot : path.size();
    std::vector<std::string> names;
    for (std::size_t i = 1; i <= pages; ++i)
        names.push_back(path.substr(0, cut) + "-" + std::to_string(i) + path.substr(cut));
    return names;
}

struct ImageWriter::Impl {
    Format format;
    int quality;
    std::size_t pages, added = 0;
    std::vector<std::string> targets, temps;
    TIFF *tiff = nullptr;
    bool committed = false;
};

ImageWriter::ImageWriter(const std::string &path, std::size_t pages, int jpegQuality)
    : impl_(std::make_unique<Impl>()) {
    Impl &m = *impl_;
    m.format = FormatOfPath(path);
    m.quality = jpegQuality;
    m.pages = pages;
    if (m.format == Format::kUnknown)
        throw FormatError(path + ": unknown output format (use .bmp .png .tif .jpg .pbm .pgm .ppm)");
    if (pages == 0) throw FormatError(path + ": nothing to write");
    m.targets = OutputNames(path, pages);
    if (m.format == Format::kTiff) {
        const std::string temp = TempName(path);
        TIFFSetErrorHandler(TiffQuiet);
        TIFFSetWarningHandler(TiffQuiet);
        if (!CreateTemp(temp, [&] { return (m.tiff = TIFFOpen(temp.c_str(), "w")) != nullptr; }))
            throw FormatError(path + ": cannot create file");
        m.temps.push_back(temp);
    }
}

ImageWriter::~ImageWriter() {
    Impl &m = *impl_;
    if (m.tiff != nullptr) TIFFClose(m.tiff);
    if (!m.committed)
        for (const std::string &t : m.temps) DiscardTemp(t);
}

void ImageWriter::add(const Page &page) {
    Impl &m = *impl_;
    const std::string &target = m.targets[std::min(m.added, m.targets.size() - 1)];
    if (m.added >= m.pages) throw FormatError(target + ": more pages than announced");
    {
        Locked l(page.get());
        if (!l.ok()) throw FormatError(target + ": not a page");
        if (m.format == Format::kJpeg && l.bits() == 1)
            throw FormatError(target + ": 1-bit pages are not written as JPEG");
    }
    if (m.format == Format::kTiff) {
        WriteTiffPage(m.tiff, page, m.added, m.pages, target);
    } else {
        const std::vector<std::uint8_t> bytes = Encode(m.format, page, m.quality);
        m.temps.push_back(TempName(target));
        WriteTemp(m.temps.back(), target, bytes);
    }
    ++m.added;
}

void ImageWriter::commit() {
    Impl &m = *impl_;
    if (m.added != m.pages)
        throw FormatError(m.targets[0] + ": " + std::to_string(m.added) + " of " + std::to_string(m.pages) +
                          " pages written");
    if (m.tiff != nullptr) {
        const bool flushed = TIFFFlush(m.tiff) != 0;
        TIFFClose(m.tiff);
        m.tiff = nullptr;
        if (!flushed) throw FormatError(m.targets[0] + ": write failed (disk full?)");
    }
    for (std::size_t i = 0; i < m.temps.size(); ++i)
        if (!CommitTemp(m.temps[i], m.targets[i]))
            throw FormatError(m.targets[i] + ": cannot move the output into place");
    m.committed = true;
}

void WriteImage(const std::string &path, const std::vector<const Page *> &pages, int jpegQuality) {
    const Format fmt = FormatOfPath(path);
    if (pages.size() > 1 && fmt != Format::kUnknown && !MultiPage(fmt))
        throw FormatError(path + ": " + FormatName(fmt) + " holds one page");
    ImageWriter writer(path, pages.size(), jpegQuality);
    for (const Page *p : pages) writer.add(*p);
    writer.commit();
}

}  // namespace qtool
