#include "edit/replace.h"

#include <algorithm>

#include "check/verify.h"
#include "compress/module_compressor.h"
#include "edit/module_selector.h"
#include "edit/rebuild_with_file.h"
#include "edit/replace_in_place.h"
#include "rebuild/rebuild.h"
#include "format/main_header_block.h"
#include "format/module_header.h"
#include "image/image_reader.h"
#include "image/module_data.h"
#include "inspect/extract.h"
#include "platform/text_format.h"
#include "script/boot_block_stamp.h"

namespace fwforge::edit {
namespace {

using inspect::ImageModel;
using inspect::Module;
using inspect::ModuleArea;

std::string FirstProblem(const inspect::VerifyReport& report) {
    if (report.problems.empty()) return "it has no main BIOS header";
    const inspect::Finding& f = report.problems.front();
    return StrFormat("%s: %s (%zu %s in all)", f.where.c_str(), f.what.c_str(),
                     report.problems.size(), report.problems.size() == 1 ? "problem" : "problems");
}

// Why `module` cannot take new data at all; empty when it can.
std::string Unreplaceable(const ImageModel& model, const Module& module) {
    const std::string name = inspect::DescribeModule(model, module);
    if (module.Linked()) {
        return name + " is the header of a linked add-on ROM and has no data of its own; "
                      "replace the add-on ROM it follows";
    }
    if (&module - model.modules.data() == model.info.module) {
        return name + " is the image information module, which describes the build and is "
                      "written by fwforge itself";
    }
    return {};
}

// The module in another reading of the image: at the same place of the same chain, or,
// where a rebuild placed the modules anew, the first of that chain with its id and
// destination.
const Module* Counterpart(const ImageModel& model, const Module& module) {
    auto same_kind = [&](const Module& m) {
        return m.area == module.area && m.block == module.block &&
               m.header.id == module.header.id && m.header.dest_offset == module.header.dest_offset &&
               m.header.dest_segment == module.header.dest_segment && !m.Linked();
    };
    for (const Module& m : model.modules) {
        if (same_kind(m) && m.index == module.index) return &m;
    }
    for (const Module& m : model.modules) {
        if (same_kind(m)) return &m;
    }
    return nullptr;
}

// An image of sequential placement built again keeps everything above the changed
// module as it was (the modules before it in the script), but for the link and checksum
// of the header before it; whatever `extract` could not recover would show there.
std::string CheckUnmoved(std::span<const std::uint8_t> before, std::span<const std::uint8_t> after,
                         const ImageModel& model, const Module& module) {
    if (before.size() != after.size()) return "the rebuilt image has another size";
    std::vector<std::pair<std::uint32_t, std::uint32_t>> kept;
    if (module.area == ModuleArea::Ebb) {
        // The main BIOS is built after the EBB, and a module compressed there anew may
        // take other matches of the same meaning after other data went through the
        // encoder; verify judges it.
        kept = {{model.main->End(), model.ebb->offset},
                {model.ebb->offset + model.ebb->length, model.size}};
    } else {
        const std::uint32_t end = module.header.offset + std::uint32_t(module_header::kSize) +
                                  module.header.data_size;
        kept = {{end, model.main->BlockStart()}, {model.main->End(), model.size}};
    }
    // The header before it in the chain links to its moved header.
    std::uint32_t link_from = 0, link_to = 0;
    if (module.area == ModuleArea::Main && module.index > 0) {
        link_from = (&module - 1)->header.offset + std::uint32_t(module_header::Checksum.offset);
        link_to = (&module - 1)->header.offset + std::uint32_t(module_header::NextModuleLink.end());
    }
    for (const auto& [from, to] : kept) {
        for (std::uint32_t i = from; i < to; ++i) {
            if (before[i] != after[i] && (i < link_from || i >= link_to)) {
                return StrFormat("the image built again from what `extract` recovers differs "
                                 "at %x, above the module; it cannot be rebuilt without its "
                                 "build script",
                                 model.Address(i));
            }
        }
    }
    return {};
}

// The build reads the boot block stamp from the file of module 1B while the script is
// read, and each 1B module's file that has a stamp sets it anew. When the image holds
// one such module, the new file decides it alone.
std::string StampOf(const ImageModel& model, const Module& module, const ReplaceRequest& request,
                    std::optional<std::uint32_t>& stamp, std::vector<std::string>& report) {
    if (module.header.id != kBootBlockStampModuleId) return {};
    const auto count = std::count_if(model.modules.begin(), model.modules.end(), [](const Module& m) {
        return m.header.id == kBootBlockStampModuleId;
    });
    if (count > 1) {
        report.push_back(StrFormat("the boot block stamp is left as it is: %d modules have id "
                                   "1B, and the order of the script decides which supplies it",
                                   static_cast<int>(count)));
        return {};
    }
    // Data given as it is stored was compressed from the file that carries the stamp.
    std::vector<std::uint8_t> original = request.file;
    if (request.as_is && module.Compressed()) {
        inspect::DecodeResult decoded = inspect::DecodeStoredData(request.file);
        if (decoded.status != inspect::DecodeStatus::Ok) return {};  // refused later
        original = std::move(decoded.bytes);
    }
    const script::StampSearch search = script::FindBootBlockStamp(original);
    if (search.result == script::StampSearch::Unreadable) {
        return StrFormat("%s supplies the boot block stamp, and the segment table of %s "
                         "reaches past its end (the build stops with \"Cannot read from boot "
                         "block file\")",
                         inspect::DescribeModule(model, module).c_str(),
                         request.file_name.c_str());
    }
    stamp = search.result == script::StampSearch::Found ? search.stamp : 0;
    if (*stamp != model.main->stamp) {
        report.push_back(StrFormat("boot block stamp %08x becomes %08x", model.main->stamp, *stamp));
    }
    return {};
}

}  // namespace

ReplaceOutcome ReplaceModule(std::span<const std::uint8_t> image, const ReplaceRequest& request) {
    ReplaceOutcome out;
    const ImageModel model = inspect::ReadImage(image, request.options);
    const inspect::VerifyReport verified = inspect::Verify(image, model);
    if (!model.main || verified.Status() == inspect::ExitStatus::Problems) {
        out.error = "the image is damaged, and replace changes intact images only: " +
                    FirstProblem(verified);
        return out;
    }
    const Selection selection = SelectModule(model, request.selector);
    if (!selection.module) {
        out.error = selection.error;
        return out;
    }
    const Module& module = *selection.module;
    const std::string name = inspect::DescribeModule(model, module);
    if (std::string why = Unreplaceable(model, module); !why.empty()) {
        out.error = std::move(why);
        return out;
    }
    const bool compress = module.Compressed() && !request.as_is;

    std::vector<std::uint8_t> result;
    // Built again from what extract recovers, with the new file: everything the module's
    // change moves moves as the build moves it.
    auto rebuild = [&]() -> bool {
        const rebuild::Reconstruction recovered = rebuild::Reconstruct(image, model);
        Rebuild rebuilt = RebuildWithFile(model, recovered.plan, module, request.file, compress);
        if (rebuilt.error.empty() && !model.gap_placement) {
            rebuilt.error = CheckUnmoved(image, rebuilt.image, model, module);
        }
        if (!rebuilt.error.empty()) {
            out.error = StrFormat("%s with %s: %s", name.c_str(), request.file_name.c_str(),
                                  rebuilt.error.c_str());
            return false;
        }
        result = std::move(rebuilt.image);
        out.report.push_back("the image is built again from what `extract` recovers, "
                             "with the new file");
        if (!recovered.exact) {
            out.report.push_back("(rebuild.scr does not give back the image itself byte for "
                                 "byte: " + recovered.difference + ")");
        }
        return true;
    };
    if (!model.gap_placement || module.Split()) {
        if (!rebuild()) return out;
    } else {
        std::vector<std::uint8_t> data = request.file;
        if (compress) {
            // A build compresses with the window its earlier modules left; a fresh one may
            // choose other matches of the same meaning near the data's end.
            data.resize(request.file.size() + 9);
            data.resize(lzh::Encoder().CompressModule(request.file, data).total);
        }
        std::optional<std::uint32_t> stamp;
        if (std::string error = StampOf(model, module, request, stamp, out.report);
            !error.empty()) {
            out.error = std::move(error);
            return out;
        }
        result.assign(image.begin(), image.end());
        if (std::string no_room = ReplaceInPlace(result, model, module, std::move(data), stamp);
            no_room.empty()) {
            out.report.push_back("the new data is written in place; nothing else moves");
        } else {
            out.report.push_back(no_room);
            if (!rebuild()) return out;
        }
    }

    const ImageModel after = inspect::ReadImage(result, request.options);
    const inspect::VerifyReport check = inspect::Verify(result, after);
    const Module* replaced = Counterpart(after, module);
    if (check.Status() == inspect::ExitStatus::Problems || !replaced) {
        out.error = "the new image does not verify: " +
                    (check.problems.empty() ? std::string("the module is gone")
                                            : FirstProblem(check));
        return out;
    }
    const std::vector<std::uint8_t> stored = replaced->StoredData(result);
    if (replaced->Compressed() && stored != module.StoredData(image)) {
        const inspect::DecodeResult decoded = inspect::DecodeStoredData(stored);
        if (decoded.status == inspect::DecodeStatus::CutOff && !request.as_is) {
            out.error = StrFormat(
                "%s: %s does not compress: the encoder's output bound cut its stream off "
                "(total %x = original size %x + 9), and the firmware could not unpack it; "
                "the module is stored compressed: give it data that compresses, or build the "
                "image again with `compressed = no` in its [module] section",
                name.c_str(), request.file_name.c_str(), decoded.total, decoded.original);
            return out;
        }
        if (decoded.status != inspect::DecodeStatus::Ok) {
            out.error = StrFormat(
                "%s: %s does not hold compressed data that the firmware could unpack (%s)%s",
                name.c_str(), request.file_name.c_str(), decoded.message.c_str(),
                request.as_is ? "; --as-is takes data as `fwforge-lzh c` writes it" : "");
            return out;
        }
    }
    out.report.insert(out.report.begin(),
                      StrFormat("%s, header at %x: %x stored bytes become %x%s", name.c_str(),
                                model.Address(module.header.offset), module.header.data_size,
                                replaced->header.data_size,
                                compress ? StrFormat(" (%zx bytes compressed)",
                                                     request.file.size()).c_str()
                                         : ""));
    out.image = std::move(result);
    return out;
}

}  // namespace fwforge::edit
