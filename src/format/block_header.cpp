#include "format/block_header.h"

#include <algorithm>
#include <array>
#include <vector>

#include "format/checksum.h"
#include "platform/byte_order.h"

namespace fwforge {

std::uint16_t BlockHeaderChecksum(std::span<const std::uint8_t> image, std::size_t block,
                                  HeaderChecksumRule rule) {
    using namespace block_header;
    std::array<std::uint8_t, kSize> header;
    std::copy_n(image.begin() + static_cast<std::ptrdiff_t>(block), kSize, header.begin());
    store_le16(&header[HeaderChecksum.offset], 0);
    if (rule == HeaderChecksumRule::LowWordOfDwordChecksum) {
        return std::uint16_t(DwordChecksum(header, 0, kSize));
    }
    return std::uint16_t(0u - WordSum(header, 0, kSize));
}

std::uint32_t ComputeBlockChecksum(std::span<const std::uint8_t> image, std::size_t block,
                                   std::size_t length) {
    using namespace block_header;
    std::vector<std::uint8_t> bytes(image.begin() + static_cast<std::ptrdiff_t>(block),
                                    image.begin() + static_cast<std::ptrdiff_t>(block + length));
    store_le16(&bytes[HeaderChecksum.offset], 0);
    store_le32(&bytes[BlockChecksum.offset], 0);
    return DwordChecksum(bytes, 0, bytes.size());
}

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
    store_le32(header + FirstModuleOffset.offset, holds_module ? kFirstModuleOffset : kEndOfChain);

    store_le32(header + BlockChecksum.offset, DwordChecksum(image, block, block_length));
    store_le16(header + HeaderChecksum.offset, BlockHeaderChecksum(image, block, rule));
}

}  // namespace fwforge
