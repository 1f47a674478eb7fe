// Reading and writing image files: the format chosen by content on input and
// by extension on output, the size limits every reader applies, and what the
// readers share. Each format lives in its own file (bmp.cpp, png.cpp,
// tiff.cpp, jpeg.cpp, pnm.cpp) behind format_io.h.
//
// Every reader checks what a header claims before it allocates: each side at
// most kMaxSide, the page at most PixelLimit() pixels, and the data the
// claim needs must fit in the file. Uncompressed data (BMP, PNM, plain TIFF)
// must be there byte for byte; compressed data may be at most as small as
// the format's densest possible coding allows, so a tiny file claiming a
// huge page is refused before a page is allocated. Palette pages are read
// through their palette (ThroughPalette): gray palettes become gray levels,
// colour palettes 24-bit colour; 2- and 4-bit pages become 8-bit and 16-bit
// pages 24-bit.
#include "formats.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "files.h"
#include "format_io.h"

namespace qtool {

namespace {

std::atomic<long long> pixelLimit{kDefaultPixelLimit};

std::string Lower(std::string s) {
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

}  // namespace

namespace detail {

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

std::vector<Page> One(Page page) {
    std::vector<Page> out;
    out.push_back(std::move(page));
    return out;
}

}  // namespace detail

using namespace detail;

namespace {

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
        impl_->tiff.reset(OpenTiff(path, "r"));
        if (!impl_->tiff) throw FormatError(path + ": corrupt TIFF file");
        impl_->pages = TiffPageCount(impl_->tiff.get());
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
        if (index > 0 && !TiffNextPage(m.tiff.get()))
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
        if (!CreateTemp(temp, [&] { return (m.tiff = OpenTiff(temp, "w")) != nullptr; }))
            throw FormatError(path + ": cannot create file");
        m.temps.push_back(temp);
    }
}

ImageWriter::~ImageWriter() {
    Impl &m = *impl_;
    TiffCloser{}(m.tiff);
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
        const bool flushed = TiffFlush(m.tiff);
        TiffCloser{}(m.tiff);
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
