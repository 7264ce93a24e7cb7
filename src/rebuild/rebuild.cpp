#include "rebuild/rebuild.h"

#include <algorithm>

#include "driver/build_run.h"
#include "image/image_reader.h"
#include "platform/file_system.h"
#include "platform/text_format.h"
#include "script/script_writer.h"

namespace fwforge::rebuild {
namespace {

std::string FirstDifference(std::span<const std::uint8_t> image, const Built& built,
                            const inspect::ImageModel& model) {
    if (built.image.empty()) return built.error;
    if (built.image.size() != image.size()) return "the rebuilt image has another size";
    const auto at = std::mismatch(image.begin(), image.end(), built.image.begin()).first;
    const auto offset = static_cast<std::uint32_t>(at - image.begin());
    return StrFormat("the rebuilt image first differs at %x (image offset %x)",
                     model.Address(offset), offset);
}

// How far a rebuilt image is from the original: first the modules whose header, stored
// size or pieces lie elsewhere, then the bytes that differ.
std::uint64_t Distance(std::span<const std::uint8_t> image, const inspect::ImageModel& model,
                       const Built& built) {
    if (built.image.size() != image.size()) return ~std::uint64_t{0};
    std::uint64_t bytes = 0;
    for (std::size_t i = 0; i < image.size(); ++i) bytes += image[i] != built.image[i];
    if (bytes == 0) return 0;
    const inspect::ImageModel other = inspect::ReadImage(built.image, {});
    std::uint64_t modules = 1 + (other.modules.size() != model.modules.size());
    for (std::size_t i = 0; i < model.modules.size() && i < other.modules.size(); ++i) {
        const inspect::Module& a = model.modules[i];
        const inspect::Module& b = other.modules[i];
        const bool same =
            a.header.offset == b.header.offset && a.header.data_size == b.header.data_size &&
            std::equal(a.pieces.begin(), a.pieces.end(), b.pieces.begin(), b.pieces.end(),
                       [](const inspect::Piece& x, const inspect::Piece& y) {
                           return x.offset == y.offset && x.length == y.length;
                       });
        modules += !same;
    }
    return (modules << 32) + bytes;
}

// What the first candidate decided at an open point.
std::int8_t Guess(const inspect::ExtractPlan& plan, const inspect::OpenChoice& point) {
    if (point.kind == inspect::OpenChoice::Recompress) {
        return plan.module_files[point.module].ends_with(".bin") ? 1 : 0;
    }
    const inspect::ModuleEntryRef ref = plan.module_entries[point.module];
    if (ref.ebb || ref.index == inspect::ModuleEntryRef::kNoEntry) return 0;
    return plan.description.ModuleTable[ref.index].Contiguous ? 0 : 1;
}

// Builds tried at most for one image: 64, or fewer for a large image, so that the search
// builds no more than about 64 MB of images in all.
int MostCandidates(std::size_t image_size) {
    constexpr std::size_t kBudget = 64u << 20;
    return static_cast<int>(std::clamp<std::size_t>(kBudget / std::max<std::size_t>(image_size, 1),
                                                    4, 64));
}

}  // namespace

Built BuildInMemory(const inspect::ExtractPlan& plan, const BuildDescription& description,
                    const std::vector<inspect::ExtractedFile>& extra) {
    platform::MemoryFileSystem files;
    for (const inspect::ExtractedFile& f : plan.files) {
        if (f.name != inspect::kRebuildScript) files.Put(f.name, f.bytes);
    }
    for (const inspect::ExtractedFile& f : extra) files.Put(f.name, f.bytes);
    files.Put(inspect::kRebuildScript, WriteBuildScript(description, plan.comments));
    BuildRequest request;
    request.script = inspect::kRebuildScript;
    request.output_path = ".";
    request.compatibility = plan.compatibility_form;
    const BuildResult result = RunBuild(files, request);
    Built built;
    if (!result.Completed()) {
        built.error = result.fatal.empty() ? "the build stopped: " + result.error_output
                                           : "the build stops with \"" + result.fatal + "\"";
    } else if (const std::vector<std::uint8_t>* rom = files.Find(result.rom_file)) {
        built.image = *rom;
    } else {
        built.error = "the rebuild wrote no image";
    }
    return built;
}

Reconstruction Reconstruct(std::span<const std::uint8_t> image, const inspect::ImageModel& model) {
    Reconstruction out;
    std::map<std::size_t, std::optional<std::vector<std::uint8_t>>> stand_ins;
    inspect::ExtractChoices choices;
    choices.stand_ins = &stand_ins;
    auto attempt = [&](const inspect::ExtractChoices& c, std::uint64_t& distance) {
        inspect::ExtractPlan plan = inspect::PlanExtract(image, model, c);
        const Built built = BuildInMemory(plan, plan.description);
        ++out.candidates_tried;
        distance = Distance(image, model, built);
        if (out.candidates_tried == 1 || distance == 0) {
            out.plan = std::move(plan);
            out.exact = distance == 0;
            out.difference = out.exact ? std::string() : FirstDifference(image, built, model);
        }
        return distance == 0;
    };
    // The best guesses first, then every compressed module compressed again (what a
    // build that compressed all of them did); from the closer of the two, each open point
    // is decided the other way in turn, and a decision that brings the rebuilt image
    // closer is kept, until the image comes back or no decision helps.
    std::uint64_t guessed = 0, all = 0;
    if (attempt(choices, guessed) || !model.gap_placement) return out;
    const std::vector<inspect::OpenChoice> open = out.plan.open_choices;
    choices.recompress.assign(model.modules.size(), -1);
    choices.splittable.assign(model.modules.size(), -1);
    choices.recompress_all = true;
    if (attempt(choices, all)) return out;
    choices.recompress_all = all < guessed;
    std::uint64_t best = std::min(all, guessed);
    const int most = MostCandidates(image.size());
    const inspect::ExtractPlan start = inspect::PlanExtract(image, model, choices);
    for (bool improved = true; improved && out.candidates_tried < most;) {
        improved = false;
        for (const inspect::OpenChoice& point : open) {
            if (out.candidates_tried >= most) break;
            std::vector<std::int8_t>& slot = point.kind == inspect::OpenChoice::Recompress
                                                 ? choices.recompress
                                                 : choices.splittable;
            const std::int8_t before = slot[point.module];
            const std::int8_t now = before < 0 ? Guess(start, point) : before;
            slot[point.module] = static_cast<std::int8_t>(now ? 0 : 1);
            std::uint64_t distance = 0;
            if (attempt(choices, distance)) return out;
            if (distance < best) {
                best = distance;
                improved = true;
            } else {
                slot[point.module] = before;
            }
        }
    }
    return out;
}

}  // namespace fwforge::rebuild
