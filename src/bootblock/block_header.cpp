#include "bootblock/block_header.h"

#include <algorithm>

#include "layout/checksum.h"
#include "platform/byte_order.h"

namespace fwforge {

void WriteBlockHeader(std::span<std::uint8_t> image, std::size_t block, std::string_view signature,
                      std::uint32_t block_length, bool holds_module, HeaderChecksumRule rule) {
    using namespace block_header;
    std::uint8_t* header = image.data() + block;
    std::fill_n(header + Signature.offset, Signature.width, std::uint8_t(' '));
    std::copy_n(signature.begin(), std::min(signature.size(), Signature.width),
                header + Signature.offset);
    store_le16(header + HeaderLength.offset, std::uint16_t(kSize));
    store_le16(header + HeaderChecksum.offset, 0);
    store_le32(header + BlockLength.offset, block_length);
    store_le32(header + BlockChecksum.offset, 0);
    store_le32(header + FirstModuleOffset.offset, holds_module ? kFirstModuleOffset : kNoModule);

    store_le32(header + BlockChecksum.offset, DwordChecksum(image, block, block_length));

    std::uint16_t header_checksum = 0;
    if (rule == HeaderChecksumRule::LowWordOfDwordChecksum) {
        header_checksum = std::uint16_t(DwordChecksum(image, block, kSize));
    } else {
        std::uint16_t sum = 0;
        for (std::size_t i = 0; i < kSize; i += 2) sum = std::uint16_t(sum + load_le16(header + i));
        header_checksum = std::uint16_t(0u - sum);
    }
    store_le16(header + HeaderChecksum.offset, header_checksum);
}

}  // namespace fwforge
