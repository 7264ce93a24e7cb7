// Every command's library path on damaged and crafted images: random mutations of
// valid images (fixed seeds) and a chain built to make naive checks quadratic. Nothing
// may crash, hang or read out of bounds (the sanitizer build checks the last).

#include <gtest/gtest.h>

#include "compress/compress_test_support.h"
#include "inspect/diff.h"
#include "inspect/extract.h"
#include "inspect/image_model.h"
#include "inspect/map.h"
#include "inspect/report.h"
#include "inspect/test_image.h"
#include "inspect/verify.h"
#include "format/checksum.h"

namespace fwforge::inspect {
namespace {

using testing::BuildTestImage;
using testing::Mod;
using testing::TestLayout;
using testing::TestModule;

// Runs everything a command would run on the image; returns whether verify was clean.
bool Exercise(const std::vector<std::uint8_t>& image, const std::vector<std::uint8_t>& other) {
    const ImageModel model = ReadImage(image, {});
    const VerifyReport report = Verify(image, model);
    (void)ListText(image, model);
    (void)ListJson(image, model);
    (void)VerifyJson(report);
    (void)MapText(image, model);
    (void)MapHtml(image, model, "t");
    if (model.main) (void)PlanExtract(image, model);
    const ImageModel other_model = ReadImage(other, {});
    if (model.main && other_model.main) (void)DiffImages(image, model, other, other_model);
    return report.Clean();
}

TEST(InspectRobustness, RandomMutationsOfValidImages) {
    TestLayout l;
    l.size = 0x10000;
    l.bbsize = 0x1000;
    l.nvram = 0x400;
    l.ebb_size = 0x400;
    l.flags = 0x02;
    l.region_from_zero = true;
    const TestModule a = Mod(0x10, 0x300, 1), e = Mod(0x10, 0x40, 4);
    l.modules = {a, Mod(0x10, 0x500, 2, 3), Mod(0x20, 0x80, 3)};
    l.ebb_modules = {e, e};
    l.ncbs = {{0x2000, 0x400, {e, a}}};
    const std::vector<std::uint8_t> clean = BuildTestImage(l).bytes;
    ASSERT_TRUE(Exercise(clean, clean));

    lzh::testing::Rng rng(0x2545F491);
    int found = 0;
    const int rounds = 120;
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::uint8_t> img = clean;
        switch (round % 4) {
            case 0:  // a few random bytes anywhere
                for (int i = 0, n = 1 + rng.Below(8); i < n; ++i)
                    img[rng.Below(img.size())] ^= 1 + rng.Below(255);
                break;
            case 1:  // a random dword at a random dword offset: sizes and links
                store_le32(&img[rng.Below(img.size() / 4) * 4], rng.Next());
                break;
            case 2:  // truncated
                img.resize(rng.Below(img.size()));
                break;
            case 3:  // a block of garbage
            {
                const std::uint32_t at = rng.Below(img.size() - 64);
                for (int i = 0; i < 64; ++i) img[at + i] = static_cast<std::uint8_t>(rng.Next());
                break;
            }
        }
        if (img != clean && !Exercise(img, clean)) ++found;
    }
    // Nearly every mutation is found; the rest hit bytes no check covers (free space).
    EXPECT_GT(found, rounds / 2);
}

// Headers every 20 bytes, each claiming the rest of the image as its data: the checks
// must stay linear in the image size.
TEST(InspectRobustness, CraftedChainOfOverlappingModules) {
    const std::uint32_t size = 0x40000;
    std::vector<std::uint8_t> img(size, 0);
    const std::uint32_t sig = size - 0x40;
    std::copy_n("ZELBIOSC", 8, img.begin() + sig);
    img[sig - 2] = 8;
    img[sig - 1] = 10;
    img[sig - 4] = 1;  // 32-bit links
    store_le32(&img[sig + 18], 8);
    std::uint32_t at = 0;
    for (; at + 40 < sig - 10; at += 20) {
        store_le32(&img[at], sig - 10 - at - 20);
        store_le32(&img[at + 8], at + 20 + 8);
        img[at + 15] = 0x00;  // "compressed"
    }
    store_le32(&img[at - 20 + 8], 0xFFFFFFFF);
    const ImageModel model = ReadImage(img, {});
    EXPECT_GT(model.modules.size(), 12000u);
    const VerifyReport report = Verify(img, model);
    EXPECT_FALSE(report.Clean());
    (void)MapText(img, model);
    (void)PlanExtract(img, model);
}

}  // namespace
}  // namespace fwforge::inspect
