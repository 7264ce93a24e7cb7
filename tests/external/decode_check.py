#!/usr/bin/env python3
"""Decodes our compressed streams with two lh5 decoders that this project did not write:
lha (Debian's lhasa) and 7z (Debian's p7zip-full or 7zip).

    decode_check.py --bin BUILD_DIR

The streams: every whole one (not cut off at the encoder's output bound, nor damaged on
purpose) that the compression cases (cases/compress.case) produce, by fwforge-lzh c or in
an image read back by fwforge-inspect extract, and every compressed module of the bundled
examples. Each lh5 bit stream (the stored data less its 8-byte header
and closing byte) goes into a level-0 -lh5- archive member whose CRC-16 is that of the
bytes it was made from; each decoder extracts the archive, and every member must come out
as those bytes. Exits 1 when one does not, or when a decoder is missing.
"""
import argparse, glob, os, shutil, struct, subprocess, sys, tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "cases"))
import run_case  # noqa: E402  (the cases' input generator and step runner)


def crc16(data):
    """CRC-16 of LZH archives: polynomial 0xA001 (reflected), initial value 0."""
    crc = 0
    for b in data:
        crc ^= b
        for _ in range(8):
            crc = (crc >> 1) ^ 0xA001 if crc & 1 else crc >> 1
    return crc


def member(name, stream, original):
    """A level-0 member: fixed part, name, CRC-16, then the stream; byte 1 sums bytes 2.."""
    fixed = b"-lh5-" + struct.pack("<IIIBBB", len(stream), len(original), 0x00210000, 0x20, 0,
                                   len(name))
    body = fixed + name.encode() + struct.pack("<H", crc16(original))
    return bytes([len(body), sum(body) & 0xFF]) + body + stream


def uncut(data, size):
    """The bit stream of stored data that an encoder run made whole: a run that hit the
    output bound (as many stream bytes as it consumed input bytes) left a cut one."""
    total = struct.unpack_from("<I", data)[0] if len(data) >= 8 else 0
    # A module's stored data may be padded behind the total (minsize, alignment).
    data, stream = data[:total], data[8:total - 1]
    ok = 8 < total <= len(data) and data[-1] == 0 and (len(stream) < size or size == 0)
    return stream if ok and struct.unpack_from("<I", data, 4)[0] == size else None


def extracted(work, originals):
    """(name, bit stream, original) for each stored stream (.lh5) that extract wrote."""
    found = []
    for path in sorted(glob.glob(os.path.join(work, "**", "*.lh5"), recursive=True)):
        data = open(path, "rb").read()
        size = struct.unpack_from("<I", data, 4)[0] if len(data) >= 8 else -1
        cands = [o for o in originals if len(o) == size]
        # Our own decoder's output only picks among inputs of one size.
        ours = path[:-4] + ".bin"
        if len(cands) > 1 and os.path.exists(ours):
            cands = [c for c in cands if c == open(ours, "rb").read()] or cands
        stream = uncut(data, size) if cands else None
        if stream is not None:
            found.append((os.path.relpath(path, work), stream, cands[0]))
    return found


def compress_case_streams(bin_dir, tmp):
    steps = run_case.read_steps(open(os.path.join(HERE, "..", "cases", "compress.case"),
                                     encoding="latin-1").read().partition("==== expected")[0]
                                .split("\n"))
    common, _, rows = run_case.split_rows(steps)
    out = []
    for n, (_, _, own) in enumerate(rows):
        work = os.path.join(tmp, f"case{n}")
        os.makedirs(work)
        # Inputs as the steps generate them, before any run can change them.
        words = [s.split() for s in common + own]
        gens = {w[1]: run_case.generate(w[2], int(w[3], 0), int(w[4], 0))
                for w in words if w[0] == "gen"}
        run_case.run_steps(common + own, bin_dir, work)
        damaged = {w[1] for w in words if w[0] in ("poke", "copy")}
        for w in words:
            if w[:3] == ["run", "fwforge-lzh", "c"] and w[3] in gens and w[4] not in damaged:
                path = os.path.join(work, w[4])
                data = open(path, "rb").read() if os.path.isfile(path) else b""
                stream = uncut(data, len(gens[w[3]]))
                if stream is not None:
                    out.append((f"compress row {n}: {w[4]}", stream, gens[w[3]]))
        out += [(f"compress row {n}: {name}", s, o)
                for name, s, o in extracted(work, list(gens.values()))]
    return out


def example_streams(bin_dir, tmp):
    out = []
    for name in ("firmware", "firmware2"):
        source, work = os.path.join(bin_dir, "examples", name), os.path.join(tmp, name)
        os.makedirs(os.path.join(work, "out"))
        originals = []
        for f in os.listdir(source):
            if f.endswith((".scr", ".bin", ".rom")) and f != name + ".rom":
                shutil.copy(os.path.join(source, f), work)
                originals.append(open(os.path.join(work, f), "rb").read())
        for cmd in (["fwforge", "out", name + ".scr"], ["fwforge-inspect", "extract", name + ".rom", "x"]):
            subprocess.run([os.path.join(bin_dir, cmd[0])] + cmd[1:], cwd=work, check=True,
                           stdout=subprocess.DEVNULL)
        out += [(f"{name}: {n}", s, o) for n, s, o in extracted(work, originals)]
    return out


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bin", required=True)
    bin_dir = os.path.abspath(ap.parse_args().bin)
    decoders = {"lha": lambda a, d: ["lha", f"xqw={d}", a],
                "7z": lambda a, d: ["7z", "x", "-y", f"-o{d}", a]}
    missing = [d for d in decoders if not shutil.which(d)]
    if missing:
        print(f"missing decoders: {', '.join(missing)} (scripts/deps.sh test installs them)")
        return 1
    with tempfile.TemporaryDirectory(prefix="fwforge-decode-") as tmp:
        streams = compress_case_streams(bin_dir, tmp) + example_streams(bin_dir, tmp)
        archive = os.path.join(tmp, "streams.lzh")
        with open(archive, "wb") as f:
            for k, (_, stream, original) in enumerate(streams):
                f.write(member(f"s{k:03}.bin", stream, original))
            f.write(b"\0")
        bad = 0
        for tool, cmd in decoders.items():
            dest = os.path.join(tmp, tool)
            subprocess.run(cmd(archive, dest), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            for k, (name, stream, original) in enumerate(streams):
                path = os.path.join(dest, f"s{k:03}.bin")
                got = open(path, "rb").read() if os.path.exists(path) else None
                if got != original:
                    bad += 1
                    print(f"{tool}: {name} ({len(stream)} bytes of stream) decodes to "
                          f"{'nothing' if got is None else f'{len(got)} other bytes'}")
        print(f"{len(streams)} streams, each decoded by lha and 7z: {bad} wrong")
        return 1 if bad or not streams else 0


if __name__ == "__main__":
    sys.exit(main())
