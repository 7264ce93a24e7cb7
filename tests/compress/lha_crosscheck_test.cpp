// Cross-check with an independent lh5 decoder: the streams are wrapped in a minimal
// LZH archive and extracted with the `lha` program (Debian package lhasa).

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "compress/compress_test_support.h"
#include "compress/lzh_format.h"
#include "compress/module_compressor.h"
#include "platform/byte_order.h"

namespace fwforge::lzh {
namespace {

using namespace testing;

// A level-0 LZH member header; the name and a CRC-16 of the original bytes follow
// the fixed part.
namespace lzh_member_header {
inline constexpr std::size_t kFixedSize = 22;
inline constexpr DataField HeaderSize{0, 1};  // bytes after the first two
inline constexpr DataField HeaderSum{1, 1};   // byte sum of those bytes
inline constexpr DataField Method{2, 5};
inline constexpr DataField PackedSize{7, 4};
inline constexpr DataField OriginalSize{11, 4};
inline constexpr DataField DosTime{15, 4};
inline constexpr DataField Attribute{19, 1};
inline constexpr DataField Level{20, 1};
inline constexpr DataField NameLength{21, 1};
}  // namespace lzh_member_header

// CRC-16 with polynomial 0xA001 (reflected), initial value 0, as LZH archives use it.
std::uint16_t Crc16(std::span<const std::uint8_t> data) {
    std::uint16_t crc = 0;
    for (std::uint8_t b : data) {
        crc ^= b;
        for (int i = 0; i < 8; ++i) crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
    }
    return crc;
}

void AppendMember(Bytes& archive, const std::string& name, std::span<const std::uint8_t> original,
                  std::span<const std::uint8_t> stream) {
    namespace h = lzh_member_header;
    Bytes header(h::kFixedSize + name.size() + 2, 0);
    header[h::HeaderSize.offset] = static_cast<std::uint8_t>(header.size() - 2);
    std::copy_n("-lh5-", h::Method.width, header.begin() + h::Method.offset);
    store_le32(&header[h::PackedSize.offset], static_cast<std::uint32_t>(stream.size()));
    store_le32(&header[h::OriginalSize.offset], static_cast<std::uint32_t>(original.size()));
    store_le32(&header[h::DosTime.offset], 0x00210000);  // 1980-01-01
    header[h::Attribute.offset] = 0x20;
    header[h::Level.offset] = 0;
    header[h::NameLength.offset] = static_cast<std::uint8_t>(name.size());
    std::copy(name.begin(), name.end(), header.begin() + h::kFixedSize);
    store_le16(&header[h::kFixedSize + name.size()], Crc16(original));
    std::uint8_t sum = 0;
    for (std::size_t i = 2; i < header.size(); ++i)
        sum = static_cast<std::uint8_t>(sum + header[i]);
    header[h::HeaderSum.offset] = sum;
    archive.insert(archive.end(), header.begin(), header.end());
    archive.insert(archive.end(), stream.begin(), stream.end());
}

bool LhaAvailable() { return std::system("command -v lha >/dev/null 2>&1") == 0; }

TEST(LhaCrossCheck, IndependentDecoderExtractsEveryUncutStream) {
    if (!LhaAvailable()) {
        GTEST_SKIP() << "lha (Debian package lhasa) is not installed: the cross-check with an "
                        "independent decoder did not run. Install it with scripts/deps.sh.";
    }
    std::vector<std::pair<std::string, Bytes>> inputs = {
        {"text", SyntheticText(40000, 1)},
        {"binary", SyntheticBinary(120000, 2)},
        {"zeros", Filled(70000, 0)},
        {"edge8448", SyntheticText(8448, 3)},
        {"edge16640", SyntheticText(16640, 4)},
        {"repeat", Repeated("lh5 lh5 lh5 data", 20000)},
    };
    for (auto& [name, data] : SystemFiles("/usr/bin", 4, 20000, 120000)) {
        inputs.push_back({"sys" + std::to_string(inputs.size()), std::move(data)});
    }

    Encoder encoder;  // reused, so later streams see earlier runs' window bytes
    Bytes archive;
    std::vector<std::pair<std::string, const Bytes*>> members;
    for (const auto& [name, data] : inputs) {
        CompressResult r;
        const Bytes out = Compress(encoder, data, &r);
        if (r.stopped) continue;
        const std::string member = name + ".bin";
        AppendMember(
            archive, member, data,
            std::span(out).subspan(compressed_data_header::kSize, r.total - kCompressedOverhead));
        members.push_back({member, &data});
    }
    // Streams built token by token: a code flattened to 16 bits, a run of exactly 19
    // zero lengths, zero lengths skipped in the code-length code, several blocks.
    const Bytes letters = FibonacciLetters();
    const Bytes au = FromString("AU");
    Bytes ramp;
    for (int i = 1; i <= 16; ++i) ramp.push_back(static_cast<std::uint8_t>(i));
    const Bytes blocks = FromString("ABBAABBA");
    const Bytes* built[] = {&letters, &au, &ramp, &blocks};
    std::vector<Coded> coded = {
        CodeBlocks({Literals(letters)}, 1u << 20),
        CodeBlocks({Literals(au)}, 1000),
        CodeBlocks({Literals(ramp)}, 1000),
        CodeBlocks({{Lit('A')}, {Lit('B'), Lit('B'), Lit('A')}, {Lit('A'), Match(3, 4)}}, 1000),
    };
    for (std::size_t i = 0; i < coded.size(); ++i) {
        const std::string member = "built" + std::to_string(i) + ".bin";
        AppendMember(archive, member, *built[i], coded[i].stream);
        members.push_back({member, built[i]});
    }
    archive.push_back(0);  // end of archive
    ASSERT_GE(members.size(), 10u);

    TempDir dir;
    WriteBytes(dir.File("check.lzh"), archive);
    const std::string command = "cd '" + dir.path().string() +
                                "' && mkdir out && lha xqfw=out check.lzh >lha.log 2>&1";
    const int status = std::system(command.c_str());
    const Bytes log = ReadBytes(dir.File("lha.log"));
    EXPECT_EQ(status, 0) << std::string(log.begin(), log.end());
    for (const auto& [member, data] : members) {
        EXPECT_TRUE(ReadBytes(dir.File("out/" + member)) == *data) << member << " differs";
    }
}

}  // namespace
}  // namespace fwforge::lzh
