// Decoding a page block into the layer's top-down gray and colour images, and
// building result blocks from them; and the resolution the analyses trust.
//
// Stored rows run bottom-up; each is decoded straight into the image row it
// shows as (row height-1-y), so the page is read once. Palette pages go
// through their table: gray tables give true gray levels whatever their
// order, colour tables give colour. 16-bit rows are 5-5-5.
//
// Resolution: the option's always; else the header's (the tag) or, without
// one, the size's (a letter or A4 sheet). Tags lie (72 or 96 dpi on a
// 300-dpi scan, a crop keeping its 600-dpi tag), so the tag or size is
// checked against the text's own scale, measured on the reduced page's ink:
// the median height of letter-sized blobs by ink (or width, on pages whose
// lines run down), which is about 1.9 mm for body text at any resolution
// (x-height letters, ascenders and words weighing their pixels; 1.7 to 2.4
// mm on the shared pages of known resolution). The text's resolution
// replaces the tag when the tag makes the page longer than 18 inches, or
// when the text disagrees with it by a factor of 2 or more and the page's
// size, taken as a sheet, points the same way; it replaces the size when
// they disagree by a factor of 2. A tag agreeing with its page size is kept
// whatever the print size.
#include "scan/page.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "frame/dib.h"
#include "frame/kernels.h"
#include "scan/paper.h"

namespace quarvel::scan {
namespace {

constexpr double kInchesPerMeter = 39.3700787;

std::uint8_t Luma(int b, int g, int r) {
    // Rec. 601 weights in 1/16384ths, rounded: the same as OpenCV's
    // BGR-to-gray conversion, so palette and direct colour pages agree.
    return static_cast<std::uint8_t>((4899 * r + 9617 * g + 1868 * b + 8192) >> 14);
}

// Resolution from the page size when the header has none: a page whose long
// side is 11.7 inches (A4) or so; clamped to the range scanners use.
int EstimateDpi(int width, int height) {
    const double longSide = std::max(width, height);
    const int dpi = static_cast<int>(std::lround(longSide / 11.5));
    return std::clamp(dpi, 50, 1200);
}

int HeaderDpi(const BITMAPINFOHEADER *h) {
    const double x = h->biXPelsPerMeter > 0 ? h->biXPelsPerMeter / kInchesPerMeter : 0.0;
    const double y = h->biYPelsPerMeter > 0 ? h->biYPelsPerMeter / kInchesPerMeter : 0.0;
    const double dpi = std::max(x, y);
    // Resolutions under 20 dpi are placeholders (1 pixel per metre and the like).
    if (dpi < 20.0 || dpi > 10000.0) return 0;
    return static_cast<int>(std::lround(dpi));
}

}  // namespace

namespace {

// Block means of an image by `f` (the last partial blocks dropped), as a
// top-down image: `bottomUp` images are read from the rows the top of the
// page is stored in and turned over, which costs a pass over the small
// result only. Integer factors make cv::resize's area mode exact block means.
cv::Mat Reduce(const cv::Mat &image, int f, bool bottomUp) {
    const int rw = image.cols / f, rh = image.rows / f;
    const cv::Mat top = image(cv::Rect(0, bottomUp ? image.rows - rh * f : 0, rw * f, rh * f));
    cv::Mat out;
    if (f == 1) {
        if (!bottomUp) return top;
        cv::flip(top, out, 0);
        return out;
    }
    cv::resize(top, out, cv::Size(rw, rh), 0, 0, cv::INTER_AREA);
    if (bottomUp) cv::flip(out, out, 0);
    return out;
}

// Page pixels per reduced pixel: about kReducedDpi, but never below 1000
// pixels on the long side, so a small fragment tagged with a high
// resolution keeps its text lines, and never above kReducedMaxSide, so a
// large page tagged with a low resolution (or none) does not run the
// analyses at full size.
int ReductionFor(const ScanPage &p) {
    const int longSide = std::max(p.width, p.height);
    int f = std::max(1, static_cast<int>(std::lround(p.dpi / static_cast<double>(kReducedDpi))));
    f = std::min(f, std::max(1, longSide / kReducedMinSide));
    return std::max(f, (longSide + kReducedMaxSide - 1) / kReducedMaxSide);
}

// The reduced page by p->reduction (and its colour, BGR, for colour
// sources) and its ink.
void ReduceWithInk(ScanPage *p, const cv::Mat &image, bool bottomUp, cv::Mat *colour) {
    const int f = p->reduction;
    if (image.channels() == 1) {
        p->reduced = Reduce(image, f, bottomUp);
    } else {
        *colour = Reduce(image, f, bottomUp);
        if (image.channels() == 4) cv::cvtColor(*colour, *colour, cv::COLOR_BGRA2BGR);
        cv::cvtColor(*colour, p->reduced, cv::COLOR_BGR2GRAY);
    }
    const int rw = p->reduced.cols, rh = p->reduced.rows;

    // Paper level round each pixel: the brightest of ~7 mm cells, smoothed,
    // so shading, tinted paper and the inside of dark areas read as their
    // own background and only marks darker than their surroundings are ink.
    constexpr int kCell = 8;
    cv::Mat cells, paper;
    const int cw = std::max(1, rw / kCell), ch = std::max(1, rh / kCell);
    cv::resize(p->reduced(cv::Rect(0, 0, std::min(rw, cw * kCell), std::min(rh, ch * kCell))), cells, cv::Size(cw, ch), 0,
               0, cv::INTER_AREA);
    cv::dilate(cells, cells, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(5, 5)));
    cv::blur(cells, cells, cv::Size(3, 3));
    cv::resize(cells, paper, cv::Size(rw, rh), 0, 0, cv::INTER_LINEAR);
    cv::Mat flat;
    cv::divide(p->reduced, cv::max(paper, 1), flat, 255.0);
    // One threshold on the flattened page, between the paper and the ink
    // peaks, kept where marks are clearly darker than the paper (at least
    // 18 % darker, at most 57 %: a page of near-black paper has no ink).
    const double otsu = cv::threshold(flat, p->ink, 0, 255, cv::THRESH_BINARY_INV | cv::THRESH_OTSU);
    const double t = std::clamp(otsu, 110.0, 210.0);
    cv::threshold(flat, p->ink, t, 255, cv::THRESH_BINARY_INV);
}

constexpr double kLetterMm = 1.9;    // median letter-blob height of body text, by ink
constexpr double kMaxSheetInches = 18.0;
constexpr double kDisagreement = 2.0; // text against tag or size, either way
constexpr double kSizeLean = 1.15;   // size against tag: beyond this it takes a side

// The resolution the text on the reduced page implies (0 when there is too
// little of it to tell): letter-sized blobs are those at least 3 reduced
// pixels and at most an eighth of the page across, neither side over 15
// times the other. Heights or widths, whichever spread less (words merge
// along their lines, so the size across the lines is the steady one), must
// have their quartiles within 50 % of their median, over 40 blobs at least.
double TextDpi(const ScanPage &p) {
    cv::Mat stats;
    const int n = LabelBlobs(p.ink, nullptr, &stats);
    const int largest = std::max(p.ink.rows, p.ink.cols) / 8;
    std::vector<std::pair<int, int>> hs, ws;  // (size, area)
    for (int i = 1; i < n; ++i) {
        const int *b = stats.ptr<int>(i);
        const int w = b[cv::CC_STAT_WIDTH], h = b[cv::CC_STAT_HEIGHT], a = b[cv::CC_STAT_AREA];
        if (std::max(w, h) < 3 || std::max(w, h) > largest || w > 15 * h || h > 15 * w) continue;
        hs.emplace_back(h, a);
        ws.emplace_back(w, a);
    }
    constexpr std::size_t kMinLetters = 40;
    if (hs.size() < kMinLetters) return 0;
    // Quartiles and median by ink (each blob weighs its pixels, so a
    // sprinkling of noise specks does not outvote the letters); returns the
    // spread (q3 - q1) / median.
    auto spread = [](std::vector<std::pair<int, int>> &v, double *median) {
        std::sort(v.begin(), v.end());
        std::int64_t total = 0;
        for (const auto &e : v) total += e.second;
        double q[3] = {0, 0, 0};
        std::int64_t sum = 0;
        int k = 0;
        for (const auto &e : v) {
            sum += e.second;
            while (k < 3 && 4 * sum >= (k + 1) * total) q[k++] = e.first;
        }
        *median = q[1];
        return (q[2] - q[0]) / q[1];
    };
    double mh = 0, mw = 0;
    const double sh = spread(hs, &mh), sw = spread(ws, &mw);
    const double size = sh <= sw ? mh : mw;
    if (std::min(sh, sw) > 0.5) return 0;
    return size * p.reduction * 25.4 / kLetterMm;
}

}  // namespace

bool DpiWantsText(const ScanPage &p) {
    if (p.dpiKnown || (p.dpiSource != DpiSource::kTag && p.dpiSource != DpiSource::kSize)) return false;
    if (p.dpiSource == DpiSource::kSize) return true;
    // A tag its page size agrees with stands whatever the text says, so the
    // text is not measured (a sheet scanned with its right tag costs nothing).
    const double lean = EstimateDpi(p.width, p.height) / static_cast<double>(p.dpi);
    const bool tooLong = std::max(p.width, p.height) / static_cast<double>(p.dpi) > kMaxSheetInches;
    return tooLong || lean >= kSizeLean || lean * kSizeLean <= 1.0;
}

namespace {

// Replaces a tag or size resolution the text contradicts (see the file's
// header); true when p->dpi changed.
bool CheckDpi(ScanPage *p) {
    if (!DpiWantsText(*p)) return false;
    const double longSide = std::max(p->width, p->height);
    const double size = EstimateDpi(p->width, p->height);
    const bool tag = p->dpiSource == DpiSource::kTag;
    const bool tooLong = tag && longSide / p->dpi > kMaxSheetInches;
    const double lean = size / p->dpi;
    const double text = TextDpi(*p);
    const bool textSheet = text > 0 && longSide / text <= kMaxSheetInches;
    const double against = textSheet ? text / p->dpi : 1.0;
    if (tooLong) {
        p->dpi = textSheet ? static_cast<int>(std::lround(text)) : static_cast<int>(size);
        p->dpiSource = textSheet ? DpiSource::kText : DpiSource::kSize;
        return true;
    }
    const bool up = against >= kDisagreement, down = against * kDisagreement <= 1.0;
    const bool replace = tag ? (up && lean >= kSizeLean) || (down && lean * kSizeLean <= 1.0) : up || down;
    if (!replace) return false;
    p->dpi = std::clamp(static_cast<int>(std::lround(text)), 20, 10000);
    p->dpiSource = DpiSource::kText;
    return true;
}

// Fills the reduced and coarse pages from the whole page in gray (CV_8UC1)
// or colour (CV_8UC3 BGR, CV_8UC4 BGRA). Colour is reduced first and turned
// to gray after, so the whole page is read once whichever way it came; it
// is read again only when the text changes the resolution enough to change
// the reduction.
void PrepareReduced(ScanPage *p, const cv::Mat &image, bool bottomUp) {
    p->reduction = ReductionFor(*p);
    cv::Mat colour;
    ReduceWithInk(p, image, bottomUp, &colour);
    if (!p->dpiKnown && CheckDpi(p) && ReductionFor(*p) != p->reduction) {
        p->reduction = ReductionFor(*p);
        ReduceWithInk(p, image, bottomUp, &colour);
    }
    const int f = p->reduction;
    // The coarse page, about kCoarseDpi: from the reduced page when its
    // factor is a whole number of reduced pixels, else from the page again.
    // (Never coarser than the page's short side: a tiny fragment keeps a pixel.)
    const int F = std::clamp(static_cast<int>(std::lround(PaperDpi(*p) / kCoarseDpi)), 1,
                             std::max(1, std::min(p->width, p->height)));
    p->coarseReduction = F;
    if (image.channels() == 1) {
        p->coarse = F % f == 0 ? Reduce(p->reduced, F / f, false) : Reduce(image, F, bottomUp);
    } else {
        if (F % f == 0) {
            p->coarseColor = Reduce(colour, F / f, false);
        } else {
            p->coarseColor = Reduce(image, F, bottomUp);
            if (image.channels() == 4) cv::cvtColor(p->coarseColor, p->coarseColor, cv::COLOR_BGRA2BGR);
        }
        cv::cvtColor(p->coarseColor, p->coarse, cv::COLOR_BGR2GRAY);
    }
    const double mm = PaperDpi(*p) / 25.4 / p->coarseReduction;
    p->coarsePaper = PaperLevel(p->coarse, std::max(2, static_cast<int>(mm)), static_cast<int>(6 * mm));
}

}  // namespace

bool LoadScanPage(HGLOBAL h, int dpiOverride, ScanPage *page, ScanRead read) {
    LockedDib in(h, kAllDepths);
    if (!in.ok()) return false;
    const int w = in.width();
    const int ht = in.height();
    if (static_cast<std::int64_t>(w) * ht > kMaxScanPixels) return false;
    const int bits = in.bitCount();

    ScanPage p;
    p.width = w;
    p.height = ht;
    p.bits = bits;
    p.xPelsPerMeter = in.header()->biXPelsPerMeter;
    p.yPelsPerMeter = in.header()->biYPelsPerMeter;
    const int headerDpi = HeaderDpi(in.header());
    if (dpiOverride > 0) {
        p.dpi = std::min(dpiOverride, 10000);
        p.dpiKnown = true;
        p.dpiSource = DpiSource::kGiven;
    } else if (headerDpi > 0) {
        p.dpi = headerDpi;
        p.dpiSource = DpiSource::kTag;
    } else {
        p.dpi = EstimateDpi(w, ht);
        p.dpiSource = DpiSource::kSize;
    }

    // Palette: up to 256 entries; indices past the table read as gray levels.
    std::array<std::uint8_t, 256> palGray{}, palB{}, palG{}, palR{};
    const int entries = bits <= 8 ? static_cast<int>(std::min<std::uint32_t>(in.colorCount(), 256u)) : 0;
    bool colourTable = false;
    for (int i = 0; i < 256; ++i) {
        if (i < entries) {
            const RGBQUAD q = in.colorTable()[i];
            palB[i] = q.rgbBlue;
            palG[i] = q.rgbGreen;
            palR[i] = q.rgbRed;
            const int spread = std::max({q.rgbBlue, q.rgbGreen, q.rgbRed}) - std::min({q.rgbBlue, q.rgbGreen, q.rgbRed});
            if (spread > 8) colourTable = true;
        } else {
            const std::uint8_t v = static_cast<std::uint8_t>(bits == 1 ? (i ? 255 : 0) : bits == 4 ? i * 17 : i);
            palB[i] = palG[i] = palR[i] = v;
        }
        palGray[i] = Luma(palB[i], palG[i], palR[i]);
    }
    p.colorSource = bits >= 16 || colourTable;
    p.bitonalSource = bits == 1 || (bits <= 8 && entries == 2 && !colourTable);

    bool identity = bits == 8 && !colourTable;
    for (int i = 0; identity && i < 256; ++i) identity = palGray[i] == i;
    // Gray ramps and 24/32-bit rows are what the analyses read in place:
    // the block's rows as a bottom-up image, no copy.
    if (read == kReadReduced && (identity || bits == 24 || bits == 32)) {
        const int type = bits == 8 ? CV_8UC1 : bits == 24 ? CV_8UC3 : CV_8UC4;
        PrepareReduced(&p, cv::Mat(ht, w, type, in.row(0), static_cast<std::size_t>(in.stride())), true);
        *page = std::move(p);
        return true;
    }

    p.gray.create(ht, w, CV_8UC1);
    if (p.colorSource) p.color.create(ht, w, CV_8UC3);

    // Each depth in its own loop so the common ones run as plain copies:
    // 8-bit gray ramps and 24-bit rows are copied as they are, colour rows
    // go to gray in one OpenCV conversion of the whole page.
    if (bits == 1) {
        std::uint8_t spread[256][8];
        for (int v = 0; v < 256; ++v)
            for (int k = 0; k < 8; ++k) spread[v][k] = palGray[(v >> (7 - k)) & 1];
        const int whole = w / 8;
        for (int y = 0; y < ht; ++y) {
            const std::uint8_t *src = in.row(y);
            std::uint8_t *g = p.gray.ptr<std::uint8_t>(ht - 1 - y);
            for (int i = 0; i < whole; ++i) std::memcpy(g + 8 * i, spread[src[i]], 8);
            for (int x = 8 * whole; x < w; ++x) g[x] = palGray[(src[x >> 3] >> (7 - (x & 7))) & 1];
        }
    } else if (bits == 4 || bits == 8) {
        for (int y = 0; y < ht; ++y) {
            const std::uint8_t *src = in.row(y);
            std::uint8_t *g = p.gray.ptr<std::uint8_t>(ht - 1 - y);
            if (identity) {
                std::memcpy(g, src, static_cast<std::size_t>(w));
            } else if (bits == 8) {
                for (int x = 0; x < w; ++x) g[x] = palGray[src[x]];
            } else {
                for (int x = 0; x < w; ++x) g[x] = palGray[(x & 1) ? (src[x >> 1] & 0x0f) : (src[x >> 1] >> 4)];
            }
        }
    } else if (bits == 24) {
        for (int y = 0; y < ht; ++y) std::memcpy(p.color.ptr(ht - 1 - y), in.row(y), 3 * static_cast<std::size_t>(w));
    } else if (bits == 32) {
        for (int y = 0; y < ht; ++y) {
            const std::uint8_t *src = in.row(y);
            std::uint8_t *c = p.color.ptr<std::uint8_t>(ht - 1 - y);
            for (int x = 0; x < w; ++x) std::memcpy(c + 3 * x, src + 4 * x, 3);
        }
    } else {  // 16: 5-5-5
        for (int y = 0; y < ht; ++y) {
            const std::uint8_t *src = in.row(y);
            std::uint8_t *c = p.color.ptr<std::uint8_t>(ht - 1 - y);
            for (int x = 0; x < w; ++x) {
                const int v = src[2 * x] | (src[2 * x + 1] << 8);
                c[3 * x] = static_cast<std::uint8_t>((v & 31) * 255 / 31);
                c[3 * x + 1] = static_cast<std::uint8_t>(((v >> 5) & 31) * 255 / 31);
                c[3 * x + 2] = static_cast<std::uint8_t>(((v >> 10) & 31) * 255 / 31);
            }
        }
    }
    if (bits >= 16) {
        cv::cvtColor(p.color, p.gray, cv::COLOR_BGR2GRAY);
    } else if (p.colorSource) {
        // Colour palettes: the colour image from the indices kept in gray's
        // place would need a second table; decode the indices again.
        for (int y = 0; y < ht; ++y) {
            const std::uint8_t *src = in.row(y);
            std::uint8_t *c = p.color.ptr<std::uint8_t>(ht - 1 - y);
            for (int x = 0; x < w; ++x) {
                const int idx = bits == 8 ? src[x]
                                : bits == 4 ? ((x & 1) ? (src[x >> 1] & 0x0f) : (src[x >> 1] >> 4))
                                            : (src[x >> 3] >> (7 - (x & 7))) & 1;
                c[3 * x] = palB[idx];
                c[3 * x + 1] = palG[idx];
                c[3 * x + 2] = palR[idx];
            }
        }
    }
    if (read & kReadReduced) PrepareReduced(&p);
    if (!(read & kReadWhole)) p.gray = p.color = cv::Mat();
    *page = std::move(p);
    return true;
}

void PrepareReduced(ScanPage *p) { PrepareReduced(p, p->colorSource ? p->color : p->gray, false); }

QuarvelScanOptions ResolveOptions(const QuarvelScanOptions *options) {
    QuarvelScanOptions o{};
    o.size = sizeof(QuarvelScanOptions);
    o.steps = QUARVEL_CLEAN_DEFAULT;
    o.dpi = 0;
    o.max_skew = 45.0;
    o.min_skew_confidence = 0.5;
    o.min_orientation_confidence = 0.6;
    o.margin = -1;
    o.binarize_method = QUARVEL_BINARIZE_DEFAULT;
    o.binarize_window = 0;
    o.binarize_k = 0.0;
    o.speck_size = 0;
    if (options == nullptr || options->size < sizeof(std::uint32_t)) return o;
    // Take the fields the caller's record holds; the rest keep their defaults.
    const std::size_t n = std::min<std::size_t>(options->size, sizeof(QuarvelScanOptions));
    QuarvelScanOptions given = o;
    std::memcpy(&given, options, n);
    given.size = sizeof(QuarvelScanOptions);
    // Reject what would make no sense; keep the defaults for those fields.
    if (given.dpi < 0 || given.dpi > 10000) given.dpi = 0;
    if (!(given.max_skew > 0.0 && given.max_skew <= 45.0)) given.max_skew = 45.0;
    if (!(given.min_skew_confidence >= 0.0 && given.min_skew_confidence <= 1.0)) given.min_skew_confidence = 0.5;
    if (!(given.min_orientation_confidence >= 0.0 && given.min_orientation_confidence <= 1.0))
        given.min_orientation_confidence = 0.6;
    if (given.margin < -1 || given.margin > 100000) given.margin = -1;
    if (given.binarize_method < 0 || given.binarize_method > QUARVEL_BINARIZE_OTSU)
        given.binarize_method = QUARVEL_BINARIZE_DEFAULT;
    if (given.binarize_window < 0 || given.binarize_window > 10000) given.binarize_window = 0;
    if (!(given.binarize_k >= 0.0 && given.binarize_k <= 10.0)) given.binarize_k = 0.0;
    if (given.speck_size < -1 || given.speck_size > 1000) given.speck_size = 0;
    return given;
}

namespace {

HGLOBAL NewBlock(const ScanPage &like, int w, int h, int bits, int entries, std::uint8_t **rows0, int *stride) {
    const std::uint64_t s = DibRowStride64(w, bits);
    const std::uint64_t size = kHeaderSize + 4ull * entries + s * static_cast<std::uint64_t>(h);
    if (w <= 0 || h <= 0 || s * static_cast<std::uint64_t>(h) > 0x7fffffffull) return nullptr;
    HGLOBAL out = GlobalAlloc(GHND, static_cast<SIZE_T>(size));
    if (out == nullptr) return nullptr;
    auto *block = static_cast<std::uint8_t *>(GlobalLock(out));
    if (block == nullptr) {
        GlobalFree(out);
        return nullptr;
    }
    auto *hd = reinterpret_cast<BITMAPINFOHEADER *>(block);
    hd->biSize = kHeaderSize;
    hd->biWidth = w;
    hd->biHeight = h;
    hd->biPlanes = 1;
    hd->biBitCount = static_cast<WORD>(bits);
    hd->biCompression = BI_RGB;
    hd->biSizeImage = static_cast<DWORD>(s * static_cast<std::uint64_t>(h));
    hd->biXPelsPerMeter = static_cast<LONG>(like.xPelsPerMeter);
    hd->biYPelsPerMeter = static_cast<LONG>(like.yPelsPerMeter);
    hd->biClrUsed = static_cast<DWORD>(entries);
    auto *table = reinterpret_cast<RGBQUAD *>(block + kHeaderSize);
    for (int i = 0; i < entries; ++i) {
        const std::uint8_t v = static_cast<std::uint8_t>(entries == 2 ? (i ? 255 : 0) : i);
        table[i] = RGBQUAD{v, v, v, 0};
    }
    *rows0 = block + kHeaderSize + 4 * entries;
    *stride = static_cast<int>(s);
    return out;
}

}  // namespace

namespace {

// A new page of the image's size at `bits`, each stored row written by
// `row(source row, destination)` from the image row it shows as.
template <class Row>
HGLOBAL WritePage(const cv::Mat &image, int type, const ScanPage &like, int bits, int entries, Row row) {
    if (image.empty() || image.type() != type) return nullptr;
    std::uint8_t *rows = nullptr;
    int stride = 0;
    HGLOBAL out = NewBlock(like, image.cols, image.rows, bits, entries, &rows, &stride);
    if (out == nullptr) return nullptr;
    for (int y = 0; y < image.rows; ++y) row(image.ptr(y), rows + static_cast<std::size_t>(image.rows - 1 - y) * stride);
    GlobalUnlock(out);
    return out;
}

}  // namespace

HGLOBAL MakeGrayPage(const cv::Mat &gray, const ScanPage &like) {
    const std::size_t n = static_cast<std::size_t>(gray.cols);
    return WritePage(gray, CV_8UC1, like, 8, 256, [n](const std::uint8_t *s, std::uint8_t *d) { std::memcpy(d, s, n); });
}

HGLOBAL MakeColorPage(const cv::Mat &bgr, const ScanPage &like) {
    const std::size_t n = 3 * static_cast<std::size_t>(bgr.cols);
    return WritePage(bgr, CV_8UC3, like, 24, 0, [n](const std::uint8_t *s, std::uint8_t *d) { std::memcpy(d, s, n); });
}

HGLOBAL MakeBitonalPage(const cv::Mat &gray, const ScanPage &like) {
    const int w = gray.cols;
    return WritePage(gray, CV_8UC1, like, 1, 2,
                     [w](const std::uint8_t *s, std::uint8_t *d) { kernels::ThresholdToBits(s, d, w, 128); });
}

HGLOBAL MakePageLike(const cv::Mat &image, const ScanPage &like) {
    if (image.type() == CV_8UC3) return MakeColorPage(image, like);
    if (like.bitonalSource) return MakeBitonalPage(image, like);
    return MakeGrayPage(image, like);
}

int MmToPixels(const ScanPage &page, double mm) {
    return std::max(1, static_cast<int>(std::lround(mm * page.dpi / 25.4)));
}

}  // namespace quarvel::scan
