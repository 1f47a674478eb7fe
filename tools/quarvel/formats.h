// Image files in and out: BMP, PNG, TIFF (multi-page, CCITT Group 4 for
// 1-bit pages), JPEG and PNM, converted to and from packed DIB pages.
// Resolution travels between the file and biXPelsPerMeter/biYPelsPerMeter.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "page.h"

namespace qtool {

// A file that cannot be read or written: the message names the reason.
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

// Every page of the file (TIFF may hold several), identified by content.
std::vector<Page> ReadImage(const std::string &path);
// Writes the pages to `path` in the format of its extension, through a
// temporary file renamed into place, so a failed write leaves nothing
// behind. Formats holding one page take exactly one.
void WriteImage(const std::string &path, const std::vector<const Page *> &pages, int jpegQuality = 90);

}  // namespace qtool
