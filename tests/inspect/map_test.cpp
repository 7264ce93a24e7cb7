// `map` as text and as HTML: every item appears once, by address, and the page holds a
// box for every module (the browser check in render_html_map.sh renders it).

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

#include "inspect/map.h"
#include "inspect/test_image.h"
#include "support/test_files.h"

namespace fwforge::inspect {
namespace {

using testing::BuildTestImage;
using testing::FullLayout;

TEST(InspectMap, EntriesCoverTheImageInAddressOrderAsTextAndHtml) {
    const auto img = BuildTestImage(FullLayout());
    const ImageModel model = ReadImage(img.bytes, {});
    const std::vector<MapEntry> map = BuildMap(img.bytes, model);
    // Top-level entries tile the image without gaps or overlaps.
    std::uint32_t next = 0;
    std::set<int> modules;
    for (const MapEntry& e : map) {
        if (e.module >= 0) modules.insert(e.module);
        if (e.depth != 0) continue;
        EXPECT_EQ(e.begin, next) << e.name;
        next = e.end;
    }
    EXPECT_EQ(next, model.size);
    EXPECT_EQ(modules.size(), model.modules.size());

    const std::string text = MapText(img.bytes, model);
    for (const char* line :
         {"boot block", "Extended Boot Block", "NVRAM area", "main BIOS header",
          "module #4 (id 13) piece 1", "module #4 (id 13) last piece", "    d0018-d012b",
          "non-critical block 1 module #7 (id 41)", "free: 0xFF"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
    }

    // The HTML page is self-contained, with a box for every module.
    const std::string html = MapHtml(img.bytes, model, "map <test>");
    EXPECT_TRUE(html.starts_with("<!DOCTYPE html>"));
    EXPECT_NE(html.find("<title>map &lt;test&gt;</title>"), std::string::npos);
    // Nothing is fetched from anywhere.
    for (const char* remote : {"http:", "https:", "<script", "<link", "src="}) {
        EXPECT_EQ(html.find(remote), std::string::npos) << remote;
    }
    std::set<std::string> boxes;
    for (std::size_t at = 0; (at = html.find("data-module=\"", at)) != std::string::npos; ++at) {
        boxes.insert(html.substr(at, html.find('"', at + 13) - at));
    }
    EXPECT_EQ(boxes.size(), model.modules.size());
    EXPECT_NE(html.find("class=\"box free\""), std::string::npos);
    EXPECT_NE(html.find("<table id=\"modules\">"), std::string::npos);
}

// Writes the image that render_html_map.sh renders (to $FWFORGE_INSPECT_MAP_FIXTURE when
// the script asks for it) and checks that `map --html` accepts it.
TEST(InspectMap, WritesTheImageForTheBrowserCheck) {
    fwforge::testing::TempDir dir;
    const char* wanted = std::getenv("FWFORGE_INSPECT_MAP_FIXTURE");
    const std::string rom = wanted ? wanted : dir.File("map.rom");
    fwforge::testing::WriteBytes(rom, BuildTestImage(FullLayout()).bytes);
    const std::string html = dir.File("map.html");
    std::string out;
    EXPECT_EQ(testing::Inspect({"map", rom.c_str(), "--html", html.c_str()}, out), 0) << out;
    EXPECT_EQ(out, "map: " + html + " written\n");
}

}  // namespace
}  // namespace fwforge::inspect
