// PNM files (PBM, PGM, PPM; plain and raw), read and written directly. The
// raster a header claims must be in the file before a page is allocated.
#include "format_io.h"

#include <cctype>
#include <cstring>

namespace qtool::detail {

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

}  // namespace qtool::detail
