#pragma once
// The `list` and `verify` reports, as text for people and as JSON for scripts.

#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <vector>

#include "check/verify.h"
#include "image/image_model.h"

namespace fwforge::inspect {

// The compressed total as a share of the original size, "44.0%"; "-" when not compressed.
std::string RatioText(const ModuleSizes& s);

// "compressed, contiguous" and the like.
std::string DescribeAttributes(const Module& m);
// "f000:8000", or "PCI 8086:1234" for an add-on ROM.
std::string DescribeDestination(const Module& m);

// One module as `list --json` gives it in "modules"; a plan gives its modules the same way.
nlohmann::ordered_json ListModuleJson(std::span<const std::uint8_t> image, const ImageModel& model,
                                  const Module& m);

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
