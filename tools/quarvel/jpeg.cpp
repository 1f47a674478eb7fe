// JPEG files through libjpeg(-turbo). Errors arrive by longjmp, so the
// decoder keeps every C++ object in a state record outside the setjmp frame;
// a warning (missing or damaged data) fails the file. A claimed page needs at
// least one bit per 8 x 8 block of data in the file.
#include "format_io.h"

#include <jerror.h>
#include <jpeglib.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>

namespace qtool::detail {

namespace {

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

}  // namespace

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

}  // namespace qtool::detail
