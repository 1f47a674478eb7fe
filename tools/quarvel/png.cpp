// PNG files through libpng. libpng reports errors by longjmp, so the decoder
// keeps every C++ object in a state record owned outside the frame that calls
// setjmp. Deflate turns one stored byte into at most 1032, so a file too
// small for the page it claims is refused before the page is allocated.
#include "format_io.h"

#include <png.h>

#include <algorithm>
#include <csetjmp>
#include <cstring>

namespace qtool::detail {

namespace {

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

}  // namespace

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
    // zlib level 3 on gray and colour pages: about 2.5x faster than level 6
    // on scans and files of much the same size; bilevel and palette pages
    // are small either way and gain a third from level 6.
    png_set_compression_level(png, type == PNG_COLOR_TYPE_PALETTE ? 6 : 3);
    png_write_info(png, info);
    for (int y = 0; y < p.height(); ++y) png_write_row(png, p.displayRow(y));
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return out;
}

}  // namespace qtool::detail
