#include "present/diff.h"

#include <map>
#include <tuple>

#include "image/module_data.h"
#include "platform/text_format.h"
#include "present/report.h"

namespace fwforge::inspect {
namespace {

using Key = std::tuple<int, int, std::uint8_t, std::uint16_t, std::uint16_t, int>;

// Pairs modules by what identifies them to the firmware; the n-th module with the same
// identity in one image goes with the n-th in the other.
std::map<Key, const Module*> Keyed(const ImageModel& model) {
    std::map<Key, const Module*> keyed;
    std::map<Key, int> seen;
    for (const Module& m : model.modules) {
        Key k{static_cast<int>(m.area), m.block, m.header.id, m.header.dest_offset,
              m.header.dest_segment,    0};
        std::get<5>(k) = seen[k]++;
        keyed[k] = &m;
    }
    return keyed;
}

// What a module holds: its decoded bytes when it decodes, else its stored bytes.
std::vector<std::uint8_t> Content(std::span<const std::uint8_t> image, const Module& m) {
    std::vector<std::uint8_t> stored = m.StoredData(image);
    if (m.Compressed()) {
        DecodeResult d = DecodeStoredData(stored);
        if (d.status == DecodeStatus::Ok) return std::move(d.bytes);
    }
    return stored;
}

std::string Name(const ImageModel& model, const Module& m) {
    return DescribeModule(model, m) + " " + DescribeDestination(m);
}

}  // namespace

std::vector<Difference> DiffImages(std::span<const std::uint8_t> image_a, const ImageModel& a,
                                   std::span<const std::uint8_t> image_b, const ImageModel& b) {
    std::vector<Difference> out;
    if (a.size != b.size) out.push_back({"image", StrFormat("size %x -> %x", a.size, b.size)});
    if (a.main && b.main) {
        const MainHeader &ha = *a.main, &hb = *b.main;
        if (ha.version != hb.version) {
            out.push_back({"image", StrFormat("main BIOS header version %02x -> %02x", ha.version,
                                              hb.version)});
        }
        if (ha.flags != hb.flags) {
            out.push_back(
                {"image", StrFormat("main BIOS header flags %02x -> %02x", ha.flags, hb.flags)});
        }
        if (ha.stamp != hb.stamp) {
            out.push_back(
                {"image", StrFormat("boot block stamp %08x -> %08x", ha.stamp, hb.stamp)});
        }
        if (ha.signature != hb.signature) {
            out.push_back({"image", StrFormat("main BIOS header moved %x -> %x",
                                              a.Address(ha.signature), b.Address(hb.signature))});
        }
    }
    if (a.boot_block_size && b.boot_block_size && a.boot_block_size == b.boot_block_size &&
        a.size == b.size) {
        const std::uint32_t bb = *a.boot_block_size;
        if (!std::equal(image_a.end() - bb, image_a.end(), image_b.end() - bb)) {
            out.push_back({"image", "boot block content differs"});
        }
    } else if (a.boot_block_size != b.boot_block_size) {
        out.push_back({"image", "boot block size differs"});
    }
    if (a.ncbs.size() != b.ncbs.size()) {
        out.push_back(
            {"image", StrFormat("%zu -> %zu non-critical blocks", a.ncbs.size(), b.ncbs.size())});
    }

    const auto ka = Keyed(a), kb = Keyed(b);
    std::uint64_t budget = ModuleByteBudget(a) + ModuleByteBudget(b);
    for (const auto& [key, ma] : ka) {
        auto it = kb.find(key);
        if (it == kb.end()) {
            out.push_back(
                {"removed", Name(a, *ma) + StrFormat(" at %x", a.Address(ma->header.offset))});
            continue;
        }
        const Module* mb = it->second;
        std::vector<std::string> fields;
        if (ma->header.attributes != mb->header.attributes) {
            fields.push_back(StrFormat("attributes %02x -> %02x (%s -> %s)", ma->header.attributes,
                                       mb->header.attributes, DescribeAttributes(*ma).c_str(),
                                       DescribeAttributes(*mb).c_str()));
        }
        if (ma->header.data_size != mb->header.data_size) {
            fields.push_back(
                StrFormat("data size %x -> %x", ma->header.data_size, mb->header.data_size));
        }
        if (ma->Split() != mb->Split() || ma->pieces.size() != mb->pieces.size()) {
            fields.push_back(StrFormat("%zu -> %zu pieces", ma->pieces.size(), mb->pieces.size()));
        }
        const std::uint64_t cost = std::uint64_t(ma->StoredLength()) + mb->StoredLength();
        if (cost > budget) {
            out.push_back({"image",
                           "modules claim far more data than the images hold; "
                           "contents not compared further"});
            break;
        }
        budget -= cost;
        const auto ca = Content(image_a, *ma), cb = Content(image_b, *mb);
        if (ca != cb) {
            fields.insert(fields.begin(),
                          StrFormat("content (%zx -> %zx bytes)", ca.size(), cb.size()));
        }
        if (!fields.empty()) {
            std::string what = Name(b, *mb) + ":";
            for (std::size_t i = 0; i < fields.size(); ++i) what += (i ? "; " : " ") + fields[i];
            out.push_back({"changed", what});
        }
        if (a.Address(ma->header.offset) != b.Address(mb->header.offset)) {
            out.push_back({"moved", Name(b, *mb) + StrFormat(": header %x -> %x",
                                                             a.Address(ma->header.offset),
                                                             b.Address(mb->header.offset))});
        }
    }
    for (const auto& [key, mb] : kb) {
        if (!ka.count(key)) {
            out.push_back(
                {"added", Name(b, *mb) + StrFormat(" at %x", b.Address(mb->header.offset))});
        }
    }
    return out;
}

std::string DiffText(const std::vector<Difference>& differences) {
    std::string out;
    int modules = 0;
    // Changes first: they are what a reader looks for; moves follow from them.
    for (const char* kind : {"image", "changed", "added", "removed", "moved"}) {
        for (const Difference& d : differences) {
            if (d.kind != kind) continue;
            out += StrFormat("%-8s %s\n", d.kind.c_str(), d.what.c_str());
            if (d.kind != "image" && d.kind != "moved") ++modules;
        }
    }
    if (differences.empty()) return out + "diff: no differences\n";
    out +=
        StrFormat("diff: %d module%s changed, added or removed; %zu difference%s in all\n", modules,
                  modules == 1 ? "" : "s", differences.size(), differences.size() == 1 ? "" : "s");
    return out;
}

}  // namespace fwforge::inspect
