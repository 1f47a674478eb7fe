// Image files in and out: BMP, PNG, TIFF (multi-page, CCITT Group 4 for
// 1-bit pages), JPEG and PNM, converted to and from packed DIB pages.
// Resolution travels between the file and biXPelsPerMeter/biYPelsPerMeter.
// Pages are read one at a time (ImageReader) and written one at a time
// (ImageWriter), so a batch holds only the pages it is working on.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "page.h"

namespace qtool {

// A file that cannot be read or written: the message names the file and the reason.
class FormatError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class Format { kBmp, kPng, kTiff, kJpeg, kPnm, kUnknown };

// The format a path's extension names (.bmp .dib .png .tif .tiff .jpg .jpeg
// .pbm .pgm .ppm .pnm).
Format FormatOfPath(const std::string &path);
const char *FormatName(Format f);
bool MultiPage(Format f);

// Claimed sizes are checked before anything is allocated: each side at most
// kMaxSide pixels and the page at most PixelLimit() pixels (process-wide).
constexpr long long kMaxSide = 1 << 20;
constexpr long long kDefaultPixelLimit = 256'000'000;
void SetPixelLimit(long long pixels);
long long PixelLimit();

// A file's pages, read one at a time and in order. The constructor checks
// that the path is a readable regular file of a known format and counts its
// pages without decoding them.
class ImageReader {
public:
    explicit ImageReader(const std::string &path);
    ~ImageReader();
    ImageReader(const ImageReader &) = delete;
    ImageReader &operator=(const ImageReader &) = delete;
    std::size_t pages() const;
    // The page after the last one read.
    Page next();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Every page of the file (TIFF may hold several), identified by content.
std::vector<Page> ReadImage(const std::string &path);

// The files `pages` pages written to `path` end up in: `path` itself, or
// NAME-1.EXT ... NAME-N.EXT when several pages go to a one-page format.
std::vector<std::string> OutputNames(const std::string &path, std::size_t pages);

// Pages written one at a time into temporary files beside their targets;
// commit() renames them all into place once every page is there, and a
// writer destroyed before that removes them, so a file is written whole or
// not at all.
class ImageWriter {
public:
    ImageWriter(const std::string &path, std::size_t pages, int jpegQuality = 90);
    ~ImageWriter();
    ImageWriter(const ImageWriter &) = delete;
    ImageWriter &operator=(const ImageWriter &) = delete;
    void add(const Page &page);
    void commit();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Writes the pages to `path` in the format of its extension. Formats holding
// one page take exactly one.
void WriteImage(const std::string &path, const std::vector<const Page *> &pages, int jpegQuality = 90);

}  // namespace qtool
