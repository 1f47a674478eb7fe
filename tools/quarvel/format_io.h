// Inside the image-file code: what formats.cpp shares with the per-format
// files (bmp.cpp, png.cpp, tiff.cpp, jpeg.cpp, pnm.cpp) and what each of
// them offers it. Readers take the file's bytes (TIFF reads through libtiff
// page by page) and return pages; encoders return a file's bytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "formats.h"
#include "page.h"

typedef struct tiff TIFF;

namespace qtool::detail {

// Shared checks and conversions (formats.cpp).
void CheckSize(long long w, long long h, const std::string &path);
[[noreturn]] void Implausible(const std::string &path, long long w, long long h, std::uint64_t bytes);
bool IsGrayRamp(const Locked &p);
int Luma(const RGBQUAD &c);
void GrayRow(const Locked &p, int y, std::uint8_t *out);
Page ThroughPalette(Page page, const std::string &path);
std::vector<Page> One(Page page);

std::vector<Page> ReadBmp(const std::string &path, const std::vector<std::uint8_t> &f);
std::vector<std::uint8_t> EncodeBmp(const Page &page);

std::vector<Page> ReadPng(const std::string &path, const std::vector<std::uint8_t> &f);
std::vector<std::uint8_t> EncodePng(const Page &page);

std::vector<Page> ReadJpeg(const std::string &path, const std::vector<std::uint8_t> &f);
std::vector<std::uint8_t> EncodeJpeg(const Page &page, int quality);

std::vector<Page> ReadPnm(const std::string &path, const std::vector<std::uint8_t> &f);
std::vector<std::uint8_t> EncodePnm(const Page &page);

// libtiff with its messages silenced; NULL when the file cannot be opened.
TIFF *OpenTiff(const std::string &path, const char *mode);
struct TiffCloser {
    void operator()(TIFF *t) const;
};
std::size_t TiffPageCount(TIFF *t);
bool TiffNextPage(TIFF *t);
bool TiffFlush(TIFF *t);
// The current directory as a page, and a page appended as a new directory.
Page ReadTiffPage(TIFF *t, const std::string &path, std::uint64_t fileSize);
void WriteTiffPage(TIFF *tf, const Page &page, std::size_t index, std::size_t pages, const std::string &path);

}  // namespace qtool::detail
