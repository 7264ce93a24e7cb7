#pragma once
// The `list` and `verify` reports, as text for people and as JSON for scripts.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "inspect/image_model.h"
#include "inspect/verify.h"

namespace fwforge::inspect {

// A run of 0xFF bytes outside every item of the image.
struct FreeRun {
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
};

// Runs shorter than this are padding between items, not free space.
inline constexpr std::uint32_t kMinFreeRun = 16;

// Free runs in address order.
std::vector<FreeRun> FreeSpace(std::span<const std::uint8_t> image, const ImageModel& model);

// What a module stores: DataSize, and for a compressed module the totals of its
// compressed-data header.
struct ModuleSizes {
    bool compressed = false;
    std::uint32_t stored = 0;    // DataSize
    std::uint32_t total = 0;     // compressed total (header, stream, 0x00)
    std::uint32_t original = 0;  // from the compressed-data header
};
ModuleSizes SizesOf(std::span<const std::uint8_t> image, const Module& m);
// The compressed total as a share of the original size, "44.0%"; "-" when not compressed.
std::string RatioText(const ModuleSizes& s);

// "compressed, contiguous" and the like.
std::string DescribeAttributes(const Module& m);
// "f000:8000", or "PCI 8086:1234" for an add-on ROM.
std::string DescribeDestination(const Module& m);

std::string ListText(std::span<const std::uint8_t> image, const ImageModel& model);
std::string ListJson(std::span<const std::uint8_t> image, const ImageModel& model);
std::string VerifyText(const VerifyReport& report);
std::string VerifyJson(const VerifyReport& report);

// The version of the JSON that list and verify write. It goes up when a field changes
// its meaning or goes away; new fields keep it.
inline constexpr int kJsonSchemaVersion = 1;

// A text of the inspector (bytes of the image, read as Latin-1) as a JSON string.
nlohmann::ordered_json JsonText(const std::string& text);
// The document as written: two-space indentation, ASCII only, a closing line end.
std::string JsonDocument(const nlohmann::ordered_json& document);

}  // namespace fwforge::inspect
