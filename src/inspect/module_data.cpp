#include "inspect/module_data.h"

#include "inspect/image_model.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"

namespace fwforge::inspect {

DecodeResult DecodeStoredData(std::span<const std::uint8_t> stored) {
    DecodeResult r;
    if (stored.size() < compressed_data::kOverhead) {
        r.status = DecodeStatus::BadHeader;
        r.message = StrFormat("%zx bytes are too few for compressed data", stored.size());
        return r;
    }
    r.total = load_le32(stored.data() + compressed_data::Total);
    r.original = load_le32(stored.data() + compressed_data::Original);
    if (r.total < compressed_data::kOverhead || r.total > stored.size()) {
        r.status = DecodeStatus::BadHeader;
        r.message = StrFormat("total size %x does not fit the %zx stored bytes", r.total,
                              stored.size());
        return r;
    }
    r.status = DecodeStatus::Unavailable;
    r.message = "no lh5 decoder in this build";
    return r;
}

}  // namespace fwforge::inspect
