// Thumbnail and Resize with our area reductions against the same calls
// resized through OpenCV alone (the reductions turned off), block for block:
// every depth, both 1-bit palettes, boxes that reduce by whole and by other
// factors, enlarge, and leave margins.
#include <gtest/gtest.h>

#include <random>

#include "frame/area_reduce.h"
#include "support/pages.h"

using qtest::Block;

namespace {

TEST(ResizePaths, OurReductionsGiveOpenCvsBlocks) {
    std::mt19937 rng(21);
    const struct {
        int bits;
        qtest::Palette palette;
    } pages[] = {{1, qtest::Palette::kDarkFirst},
                 {1, qtest::Palette::kLightFirst},
                 {8, qtest::Palette::kDarkFirst},
                 {24, qtest::Palette::kNone},
                 {32, qtest::Palette::kNone}};
    const int boxes[][2] = {{100, 150}, {63, 400}, {400, 75}, {37, 41}, {700, 900}, {199, 299}};
    for (const auto &p : pages) {
        Block page = qtest::MakePageWith(qtest::Shape(200, 300, p.bits, p.palette), [&](int x, int y, int) {
            return p.bits == 1 ? static_cast<int>(rng() % 3 == 0) : static_cast<int>((x * 3 + y + rng() % 64) & 255);
        });
        for (const auto &box : boxes) {
            const bool was = quarvel::UseAreaReduce(false);
            Block thumbPlain(Thumbnail(page.get(), box[0], box[1])), resizePlain(Resize(page.get(), box[0], box[1]));
            quarvel::UseAreaReduce(true);
            Block thumb(Thumbnail(page.get(), box[0], box[1])), resize(Resize(page.get(), box[0], box[1]));
            quarvel::UseAreaReduce(was);
            ASSERT_TRUE(thumb && resize && thumbPlain && resizePlain);
            EXPECT_EQ(thumb.bytes(), thumbPlain.bytes()) << p.bits << " bits, Thumbnail " << box[0] << "x" << box[1];
            EXPECT_EQ(resize.bytes(), resizePlain.bytes()) << p.bits << " bits, Resize " << box[0] << "x" << box[1];
        }
    }
}

}  // namespace
