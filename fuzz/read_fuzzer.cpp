// The tool's file readers: the input (given the format's signature when it
// lacks one, so each target stays inside its reader) is written to a
// temporary file and read with qtool::ReadImage. A file the reader refuses
// throws qtool::FormatError (or another std::exception); anything else, or a
// sanitizer report, is a fault of the reader.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "formats.h"

#ifndef QFUZZ_FORMAT
#error "QFUZZ_FORMAT names the reader: bmp, png, tiff, jpeg or pnm"
#endif

namespace {

struct Signature {
    const char *format;
    std::vector<std::string> magics;  // any of these may start a file
};

const Signature &Wanted() {
    static const Signature kAll[] = {
        {"bmp", {"BM"}},
        {"png", {std::string("\x89PNG\r\n\x1a\n", 8)}},
        {"tiff", {std::string("II*\0", 4), std::string("MM\0*", 4)}},
        {"jpeg", {"\xFF\xD8\xFF"}},
        {"pnm", {"P1", "P2", "P3", "P4", "P5", "P6"}},
    };
    for (const Signature &s : kAll)
        if (std::strcmp(s.format, QFUZZ_FORMAT) == 0) return s;
    std::abort();
}

std::string TempPath() {
    const char *dir = std::getenv("TMPDIR");
    std::string path = std::string(dir != nullptr ? dir : "/tmp") + "/quarvel-fuzz-XXXXXX";
    const int fd = mkstemp(path.data());
    if (fd < 0) std::abort();
    close(fd);
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const std::string path = TempPath();
    std::string bytes(reinterpret_cast<const char *>(data), size);
    const Signature &s = Wanted();
    bool signed_ = false;
    for (const std::string &m : s.magics) signed_ = signed_ || bytes.compare(0, m.size(), m) == 0;
    if (!signed_) bytes = s.magics[size % s.magics.size()] + bytes;
    FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) std::abort();
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
    try {
        std::vector<qtool::Page> pages = qtool::ReadImage(path);
    } catch (const qtool::FormatError &) {
    } catch (const std::exception &) {
    }
    return 0;
}
