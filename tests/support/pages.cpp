#include "support/pages.h"

#include <gtest/gtest.h>

#include <jpeglib.h>
#include <png.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace qtest {

std::vector<std::uint8_t> Block::bytes() const {
    const auto *p = static_cast<const std::uint8_t *>(GlobalLock(h_));
    std::vector<std::uint8_t> out;
    if (p != nullptr) {
        out.assign(p, p + GlobalSize(h_));
        GlobalUnlock(h_);
    }
    return out;
}

BITMAPINFOHEADER Block::header() const {
    BITMAPINFOHEADER h{};
    const auto *p = static_cast<const std::uint8_t *>(GlobalLock(h_));
    if (p != nullptr) {
        std::memcpy(&h, p, sizeof h);
        GlobalUnlock(h_);
    }
    return h;
}

Block MakePage(const PageShape &shape) {
    std::uint32_t colors = shape.clrUsed;
    if (colors == 0 && shape.bitCount <= 8) colors = 1u << shape.bitCount;
    const std::size_t stride = quarvel::DibRowStride(shape.width, shape.bitCount);
    const std::size_t size = 40 + 4 * colors + stride * shape.height + shape.extraBytes;
    Block page(GlobalAlloc(GHND, size));
    auto *p = static_cast<std::uint8_t *>(GlobalLock(page.get()));
    auto *h = reinterpret_cast<BITMAPINFOHEADER *>(p);
    h->biSize = 40;
    h->biWidth = shape.width;
    h->biHeight = shape.height;
    h->biPlanes = 1;
    h->biBitCount = static_cast<WORD>(shape.bitCount);
    h->biCompression = BI_RGB;
    h->biSizeImage = static_cast<DWORD>(stride * shape.height);
    h->biXPelsPerMeter = h->biYPelsPerMeter = 11811;  // 300 dpi
    h->biClrUsed = shape.clrUsed;
    auto *table = reinterpret_cast<RGBQUAD *>(p + 40);
    for (std::uint32_t i = 0; i < colors; ++i) {
        int v = colors <= 1 ? 0 : static_cast<int>(i * 255 / (colors - 1));
        if (shape.palette == Palette::kLightFirst) v = 255 - v;
        table[i] = RGBQUAD{static_cast<BYTE>(v), static_cast<BYTE>(v), static_cast<BYTE>(v), 0};
    }
    GlobalUnlock(page.get());
    return page;
}

PageView::PageView(HGLOBAL h)
    : h_(h), header_(static_cast<BITMAPINFOHEADER *>(GlobalLock(h))), bits_(quarvel::DibPixelBits(header_)) {}

PageView::~PageView() { GlobalUnlock(h_); }

int PageView::get(int x, int y, int channel) const {
    const std::uint8_t *r = row(y);
    switch (bitCount()) {
        case 1: return (r[x >> 3] >> (7 - (x & 7))) & 1;
        case 8: return r[x];
        default: return r[x * (bitCount() / 8) + channel];
    }
}

void PageView::set(int x, int y, int value, int channel) const {
    std::uint8_t *r = row(y);
    switch (bitCount()) {
        case 1: {
            const std::uint8_t m = static_cast<std::uint8_t>(0x80 >> (x & 7));
            r[x >> 3] = static_cast<std::uint8_t>(value ? (r[x >> 3] | m) : (r[x >> 3] & ~m));
            break;
        }
        case 8: r[x] = static_cast<std::uint8_t>(value); break;
        default: r[x * (bitCount() / 8) + channel] = static_cast<std::uint8_t>(value);
    }
}

namespace {

std::string DataPath(const std::string &name) { return std::string(QUARVEL_TEST_DATA) + "/" + name; }

// Rows arrive top-down from the decoders; a DIB stores them bottom-up.
Block PageFromRows(int width, int height, int bitCount, const std::vector<std::uint8_t> &rows, std::size_t rowBytes,
                   Palette palette) {
    PageShape shape;
    shape.width = width;
    shape.height = height;
    shape.bitCount = bitCount;
    shape.palette = palette;
    Block page = MakePage(shape);
    PageView v(page.get());
    for (int y = 0; y < height; ++y) {
        std::memcpy(v.row(height - 1 - y), &rows[static_cast<std::size_t>(y) * rowBytes], rowBytes);
    }
    return page;
}

Block LoadPng(const std::string &path) {
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) throw std::runtime_error("cannot open " + path);
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        std::fclose(f);
        throw std::runtime_error("bad png " + path);
    }
    png_init_io(png, f);
    png_read_info(png, info);
    const int w = static_cast<int>(png_get_image_width(png, info));
    const int h = static_cast<int>(png_get_image_height(png, info));
    const int depth = png_get_bit_depth(png, info);
    const int type = png_get_color_type(png, info);
    // The test scans are 1-bit (gray, or with a two-colour table) or 8-bit gray.
    const bool known = type == PNG_COLOR_TYPE_GRAY ? depth == 1 || depth == 8 : type == PNG_COLOR_TYPE_PALETTE && depth == 1;
    png_colorp colors;
    int n = 0;
    const bool lightFirst = type == PNG_COLOR_TYPE_PALETTE && png_get_PLTE(png, info, &colors, &n) && n > 0 && colors[0].blue > 128;
    png_read_update_info(png, info);
    const std::size_t rowBytes = png_get_rowbytes(png, info);
    std::vector<std::uint8_t> rows(rowBytes * h);
    std::vector<png_bytep> pointers(h);
    for (int y = 0; y < h; ++y) pointers[y] = &rows[y * rowBytes];
    if (known) png_read_image(png, pointers.data());
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(f);
    if (!known) throw std::runtime_error("unsupported png " + path);
    return PageFromRows(w, h, depth, rows, rowBytes, lightFirst ? Palette::kLightFirst : Palette::kDarkFirst);
}

Block LoadJpeg(const std::string &path) {
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) throw std::runtime_error("cannot open " + path);
    jpeg_decompress_struct cinfo;
    jpeg_error_mgr jerr;
    cinfo.err = jpeg_std_error(&jerr);
    jpeg_create_decompress(&cinfo);
    jpeg_stdio_src(&cinfo, f);
    jpeg_read_header(&cinfo, TRUE);
    const bool gray = cinfo.num_components == 1;
    cinfo.out_color_space = gray ? JCS_GRAYSCALE : JCS_EXT_BGR;
    jpeg_start_decompress(&cinfo);
    const int w = static_cast<int>(cinfo.output_width);
    const int h = static_cast<int>(cinfo.output_height);
    const std::size_t rowBytes = static_cast<std::size_t>(w) * cinfo.output_components;
    std::vector<std::uint8_t> rows(rowBytes * h);
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW r = &rows[cinfo.output_scanline * rowBytes];
        jpeg_read_scanlines(&cinfo, &r, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    std::fclose(f);
    return PageFromRows(w, h, gray ? 8 : 24, rows, rowBytes, Palette::kDarkFirst);
}

}  // namespace

Block LoadScan(const std::string &name) {
    const std::string path = DataPath(name);
    if (name.size() > 4 && name.substr(name.size() - 4) == ".png") return LoadPng(path);
    return LoadJpeg(path);
}

Block Copy(HGLOBAL h) {
    const std::size_t size = GlobalSize(h);
    Block out(GlobalAlloc(GHND, size));
    std::memcpy(GlobalLock(out.get()), GlobalLock(h), size);
    GlobalUnlock(h);
    GlobalUnlock(out.get());
    return out;
}

void ExpectMoved(HGLOBAL in, HGLOBAL out, const Move &to, const std::string &what) {
    PageView a(in), b(out);
    const int channels = a.bitCount() >= 24 ? a.bitCount() / 8 : 1;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const auto [X, Y] = to(x, y);
            if (X < 0 || X >= b.width() || Y < 0 || Y >= b.height()) continue;
            for (int c = 0; c < channels; ++c)
                ASSERT_EQ(b.get(X, Y, c), a.get(x, y, c)) << what << ", " << a.bitCount() << " bits: " << x << "," << y;
        }
}

bool SamePixels(HGLOBAL a, HGLOBAL b) {
    PageView va(a), vb(b);
    if (va.width() != vb.width() || va.height() != vb.height() || va.bitCount() != vb.bitCount()) return false;
    const int channels = va.bitCount() >= 24 ? va.bitCount() / 8 : 1;
    for (int y = 0; y < va.height(); ++y)
        for (int x = 0; x < va.width(); ++x)
            for (int c = 0; c < channels; ++c)
                if (va.get(x, y, c) != vb.get(x, y, c)) return false;
    return true;
}

std::vector<int> RowValues(HGLOBAL h, int y, int channel) {
    PageView v(h);
    std::vector<int> out;
    for (int x = 0; x < v.width(); ++x) out.push_back(v.get(x, y, channel));
    return out;
}

int DarkCount(HGLOBAL h) {
    PageView v(h);
    const int channels = v.bitCount() >= 24 ? 3 : 1;
    int n = 0;
    for (int y = 0; y < v.height(); ++y)
        for (int x = 0; x < v.width(); ++x) {
            bool dark = false;
            for (int c = 0; c < channels; ++c) dark = dark || v.get(x, y, c) < (v.bitCount() == 1 ? 1 : 128);
            n += dark;
        }
    return n;
}

int DirtyPaddingRow(HGLOBAL h) {
    PageView v(h);
    const int used = v.width() * v.bitCount();
    for (int y = 0; y < v.height(); ++y)
        for (int b = used; b < v.stride() * 8; ++b)
            if ((v.row(y)[b >> 3] >> (7 - (b & 7))) & 1) return y;
    return -1;
}

void DirtyTheHeap(std::size_t bytes, std::uint8_t value) {
    std::vector<HGLOBAL> blocks;
    for (int i = 0; i < 8; ++i) {
        HGLOBAL b = GlobalAlloc(GHND, bytes);
        std::memset(GlobalLock(b), value, bytes);
        GlobalUnlock(b);
        blocks.push_back(b);
    }
    for (HGLOBAL b : blocks) GlobalFree(b);
}

}  // namespace qtest
