#pragma once
// A small, independent image builder for the inspector's tests: it lays out a boot
// block, an Extended Boot Block, an NVRAM area, a main BIOS header with a module chain
// stacked downwards (split modules as chained pieces), an image information module
// and non-critical blocks, byte by byte, with every link and checksum, so that the
// reader is tested against the formats themselves and not against the writer. Below
// it, helpers that run the inspector on images.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "inspect/image_model.h"
#include "inspect/inspect_cli.h"
#include "inspect/report.h"
#include "inspect/verify.h"
#include "format/checksum.h"
#include "platform/byte_order.h"

namespace fwforge::inspect::testing {

struct TestModule {
    std::uint8_t id = 0x10;
    std::uint8_t attributes = 0x80;  // uncompressed
    std::uint16_t dest_offset = 0;
    std::uint16_t dest_segment = 0xF000;
    std::vector<std::uint8_t> data;
    int pieces = 1;  // > 1: written as a split module with this many pieces
};

struct TestNcb {
    std::uint32_t offset = 0;  // image offset, a multiple of 16
    std::uint32_t size = 0;
    std::vector<TestModule> modules;
};

struct TestLayout {
    std::uint32_t size = 0x40000;
    std::uint32_t bbsize = 0x2000;
    std::uint32_t ebb_size = 0;  // 0: no EBB
    std::uint32_t nvram = 0x1000;
    bool links32 = false;
    std::uint8_t version = 1;
    std::uint8_t flags = 0;
    std::uint32_t stamp = 0x12345678;
    const char* tool_version = "3.33";  // four characters
    bool image_info = true;
    bool region_from_zero = false;  // the main header's region as gap placement sets it
    std::vector<TestModule> modules;
    std::vector<TestModule> ebb_modules;
    std::vector<TestNcb> ncbs;
};

// Where the builder put things, for tests that flip bytes.
struct TestImage {
    std::vector<std::uint8_t> bytes;
    std::uint32_t main_signature = 0;
    std::uint32_t ebb_offset = 0;
    std::vector<std::uint32_t> module_headers;  // main chain, last (full) header of a split
    std::vector<std::uint32_t> ebb_headers;
};

inline std::uint32_t Round4(std::uint32_t v) { return (v + 3) & ~3u; }

inline void WriteHeader(std::vector<std::uint8_t>& img, std::uint32_t at, std::uint32_t size,
                        const TestModule& m, std::uint8_t attributes) {
    store_le32(&img[at], size);
    store_le32(&img[at + 4], 0);
    store_le32(&img[at + 8], 0xFFFFFFFF);
    store_le16(&img[at + 12], size < 0x10000 ? static_cast<std::uint16_t>(size) : 0xFFFF);
    img[at + 14] = m.id;
    img[at + 15] = attributes;
    store_le16(&img[at + 16], m.dest_offset);
    store_le16(&img[at + 18], m.dest_segment);
}

inline void Seal(std::vector<std::uint8_t>& img, std::uint32_t at, std::uint32_t covered,
                 std::uint32_t extra = 0) {
    store_le32(&img[at + 4], 0);
    store_le32(&img[at + 4], 0u - (DwordSum(img, at, covered) + extra));
}

inline std::uint32_t MainLink(const TestLayout& l, std::uint32_t header) {
    if (l.links32) return header + 8;
    const std::uint32_t a = 0x100000 - l.size + header + 8;
    std::uint32_t off = a % 16, seg = a / 16;
    if (off < 8) {
        off += 16;
        seg -= 1;
    }
    return (seg << 16) | off;
}

// The image information data: tool version, version/flags, offsets, sizes, holes.
inline std::vector<std::uint8_t> ImageInfoData(const TestLayout& l) {
    std::vector<std::uint8_t> d(42, 0);
    auto head = [&](std::size_t at, std::uint16_t next, std::uint8_t type, std::uint8_t item,
                    std::uint8_t count) {
        store_le16(&d[at], next);
        d[at + 2] = type;
        d[at + 3] = item;
        d[at + 4] = count;
    };
    head(0, 9, 0x60, 4, 1);
    std::copy(l.tool_version, l.tool_version + 4, d.begin() + 5);
    head(9, 16, 0x10, 2, 1);
    d[14] = l.version, d[15] = l.flags;
    head(16, 29, 0x20, 8, 1);
    store_le32(&d[21], 0xFFE0);
    store_le32(&d[25], 0xE000);
    head(29, l.ncbs.empty() ? 0xFFFF : 42, 0x30, 8, 1);
    store_le32(&d[34], l.bbsize + l.ebb_size);
    store_le32(&d[38], l.nvram);
    if (!l.ncbs.empty()) {
        d.resize(42 + 5 + 10 * l.ncbs.size(), 0);
        head(42, 0xFFFF, 0x50, 10, static_cast<std::uint8_t>(l.ncbs.size()));
        for (std::size_t i = 0; i < l.ncbs.size(); ++i) {
            std::uint8_t* p = &d[47 + 10 * i];
            p[0] = 2;
            p[1] = 0xFF;
            store_le32(p + 2, l.ncbs[i].offset);
            store_le32(p + 6, l.ncbs[i].size);
        }
    }
    return d;
}

// Modules packed upwards from `begin` inside a block, with 32-bit links counted from
// the block's start; returns the header offsets.
inline std::vector<std::uint32_t> PackBlockModules(std::vector<std::uint8_t>& img,
                                                   std::uint32_t block,
                                                   const std::vector<TestModule>& modules) {
    std::vector<std::uint32_t> headers;
    std::uint32_t at = block + 24;
    for (const TestModule& m : modules) {
        const std::uint32_t size = Round4(static_cast<std::uint32_t>(m.data.size()));
        WriteHeader(img, at, size, m, m.attributes);
        std::copy(m.data.begin(), m.data.end(), img.begin() + at + 20);
        headers.push_back(at);
        at += 20 + size;
    }
    for (std::size_t i = 0; i < headers.size(); ++i) {
        if (i + 1 < headers.size()) store_le32(&img[headers[i] + 8], headers[i + 1] + 8 - block);
        Seal(img, headers[i], 20 + load_le32(&img[headers[i]]));
    }
    return headers;
}

inline void BlockHeader(std::vector<std::uint8_t>& img, std::uint32_t at, std::uint32_t length,
                        const char* signature, bool has_modules, bool ebb_style) {
    std::copy(signature, signature + 8, img.begin() + at);
    store_le16(&img[at + 8], 24);
    store_le16(&img[at + 10], 0);
    store_le32(&img[at + 12], length);
    store_le32(&img[at + 16], 0);
    store_le32(&img[at + 20], has_modules ? 0x20 : 0xFFFFFFFF);
    store_le32(&img[at + 16], 0u - DwordSum(img, at, length));
    if (ebb_style) {
        store_le16(&img[at + 10], static_cast<std::uint16_t>(0u - DwordSum(img, at, 24)));
    } else {
        std::uint16_t words = 0;
        for (int i = 0; i < 24; i += 2) words += load_le16(&img[at + i]);
        store_le16(&img[at + 10], static_cast<std::uint16_t>(0u - words));
    }
}

inline TestImage BuildTestImage(const TestLayout& l) {
    TestImage out;
    std::vector<std::uint8_t>& img = out.bytes;
    img.assign(l.size, 0xFF);
    // Boot block: arbitrary bytes with the checksum dword at its start.
    const std::uint32_t bb = l.size - l.bbsize;
    for (std::uint32_t i = 0; i < l.bbsize; ++i) img[bb + i] = static_cast<std::uint8_t>(i * 7 + 3);
    // The tag with its zero byte 32 bytes below the top, as at the default tag offset.
    std::copy_n("TESTTAG", 8, img.begin() + l.size - 0x20);
    store_le32(&img[bb], 0);
    store_le32(&img[bb], 0u - DwordSum(img, bb, l.bbsize));
    std::uint32_t cursor = bb;
    if (l.ebb_size) {
        cursor -= l.ebb_size;
        out.ebb_offset = cursor;
        out.ebb_headers = PackBlockModules(img, cursor, l.ebb_modules);
        BlockHeader(img, cursor, l.ebb_size, "ZELEBBLK", !l.ebb_modules.empty(), true);
    }
    cursor -= l.nvram;
    // Main BIOS header block.
    cursor -= 32;
    const std::uint32_t sig = cursor + 10;
    out.main_signature = sig;
    std::fill(img.begin() + cursor, img.begin() + cursor + 32, 0);
    img[sig - 5] = l.version;
    img[sig - 4] = l.flags;
    img[sig - 2] = 8;
    img[sig - 1] = 10;
    std::copy_n("ZELBIOSC", 8, img.begin() + sig);
    store_le32(&img[sig + 8], l.stamp);
    std::uint32_t last_link_field = sig + 18;
    auto link = [&](std::uint32_t header) {
        store_le32(&img[last_link_field], MainLink(l, header));
    };
    std::vector<TestModule> modules = l.modules;
    if (l.image_info) {
        TestModule info;
        info.id = 0x80;
        info.attributes = 0x80;
        info.dest_segment = 0;
        info.data = ImageInfoData(l);
        modules.push_back(info);
    }
    std::vector<std::uint32_t> split_sums;  // per module; 0 when not split
    std::uint32_t previous_size = 0;
    for (std::size_t mi = 0; mi < modules.size(); ++mi) {
        const TestModule& m = modules[mi];
        const auto total = static_cast<std::uint32_t>(m.data.size());
        // A linked add-on ROM header has no data and carries its parent's size.
        const std::uint32_t size = (m.attributes & 0x40) ? previous_size : Round4(total);
        previous_size = size;
        if (m.pieces <= 1) {
            cursor -= ((m.attributes & 0x40) ? 0 : size) + 20;
            if (mi + 1 == modules.size() && l.image_info) cursor &= ~7u;
            WriteHeader(img, cursor, size, m, m.attributes);
            std::copy(m.data.begin(), m.data.end(), img.begin() + cursor + 20);
            link(cursor);
            last_link_field = cursor + 8;
            Seal(img, cursor, (m.attributes & 0x40) ? 20 : 20 + size);
            out.module_headers.push_back(cursor);
            split_sums.push_back(0);
            continue;
        }
        // Split: pieces of equal length (the last takes the rest), each below the one
        // before with a 16-byte gap; the last piece carries the full header.
        const std::uint32_t piece = Round4(size / m.pieces);
        std::uint32_t done = 0, split_sum = 0;
        for (int p = 0; p < m.pieces; ++p) {
            const std::uint32_t len = p + 1 < m.pieces ? piece : size - done;
            cursor -= len + 20 + 16;
            std::vector<std::uint8_t> chunk(len, 0xFF);
            for (std::uint32_t i = 0; i < len && done + i < total; ++i) chunk[i] = m.data[done + i];
            std::copy(chunk.begin(), chunk.end(), img.begin() + cursor + 20);
            split_sum += DwordSum(chunk, 0, len);
            const bool last = p + 1 == m.pieces;
            WriteHeader(img, cursor, last ? size : len, m,
                        last ? m.attributes : static_cast<std::uint8_t>(m.attributes | 0x20));
            if (!last) store_le32(&img[cursor + 4], 0xFFFFFFFF);  // never sealed
            link(cursor);
            last_link_field = cursor + 8;
            done += len;
        }
        out.module_headers.push_back(cursor);
        split_sums.push_back(split_sum);
    }
    // Seal every header now that all links are written; a split module's last header
    // covers its own 20 bytes and the data of all its pieces.
    for (std::size_t i = 0; i < out.module_headers.size(); ++i) {
        const std::uint32_t h = out.module_headers[i];
        if (modules[i].pieces > 1) {
            Seal(img, h, 20, split_sums[i]);
        } else {
            Seal(img, h, (img[h + 15] & 0x40) ? 20 : 20 + load_le32(&img[h]));
        }
    }
    // Region: from the 8-byte boundary below the lowest item up to the header's end,
    // the bytes between filled with '0'.
    const std::uint32_t end = sig + 22;
    std::uint32_t length = end;
    if (!l.region_from_zero) {
        const std::uint32_t r = cursor % 8;
        std::fill(img.begin() + cursor - r, img.begin() + cursor, 0x30);
        length = end - (cursor - r);
    }
    store_le16(&img[sig + 12], static_cast<std::uint16_t>(length / 8));
    store_le32(&img[sig + 14], 0);
    store_le32(&img[sig + 14], 0u - DwordSum(img, end - length, length));
    for (const TestNcb& n : l.ncbs) {
        std::fill(img.begin() + n.offset, img.begin() + n.offset + n.size, 0xFF);
        PackBlockModules(img, n.offset, n.modules);
        BlockHeader(img, n.offset, n.size, "ZELNCBLK", !n.modules.empty(), false);
    }
    return out;
}

inline std::vector<std::uint8_t> Pattern(std::size_t n, std::uint8_t seed) {
    std::vector<std::uint8_t> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<std::uint8_t>(seed + i * 13 + (i >> 7));
    return v;
}

// A module of `size` pattern bytes, loaded at f000:(id * 10).
inline TestModule Mod(std::uint8_t id, std::size_t size, std::uint8_t seed, int pieces = 1) {
    TestModule m;
    m.id = id;
    m.data = Pattern(size, seed);
    m.pieces = pieces;
    m.dest_offset = static_cast<std::uint16_t>(id * 0x10);
    return m;
}

// Every kind of item: modules, an add-on ROM with a linked one, a split module, the
// EBB with two modules and a non-critical block with two.
inline TestLayout FullLayout() {
    TestLayout l;
    l.ebb_size = 0x800;
    l.flags = 0x06;
    l.region_from_zero = true;
    l.modules = {Mod(0x11, 0x300, 1), Mod(0x12, 0x1001, 2), Mod(0x20, 0x200, 3),
                 Mod(0x20, 0, 4), Mod(0x13, 0x900, 5, 3)};
    l.modules[2].dest_offset = 0x8086;
    l.modules[2].dest_segment = 0x1234;
    l.modules[3].attributes = 0x40;  // linked add-on ROM: no data, parent's size
    l.modules[3].dest_offset = 0x8086;
    l.modules[3].dest_segment = 0x5678;
    l.ebb_modules = {Mod(0x30, 0x40, 6), Mod(0x31, 0x84, 7)};
    l.ncbs = {{0x10000, 0x1000, {Mod(0x40, 0x100, 8), Mod(0x41, 0x80, 9)}}};
    return l;
}

// Runs fwforge-inspect with `args`; returns its exit status and leaves its output in
// `console`.
inline int Inspect(std::vector<const char*> args, std::string& console) {
    std::ostringstream out;
    args.insert(args.begin(), "fwforge-inspect");
    const int status = RunInspect(static_cast<int>(args.size()), args.data(), out);
    console = out.str();
    return status;
}

// Verifies `image` with the byte at `offset` flipped: some problem is named `named`.
inline void ExpectFlipFound(std::vector<std::uint8_t> image, std::uint32_t offset,
                            const std::string& named, std::uint8_t mask = 0x20) {
    image[offset] ^= mask;
    const VerifyReport report = Verify(image, ReadImage(image, {}));
    bool found = false;
    for (const Finding& p : report.problems) found |= p.where.starts_with(named);
    EXPECT_TRUE(found) << "flip at " << offset << ": " << named << "\n" << VerifyText(report);
}

}  // namespace fwforge::inspect::testing
