#!/usr/bin/env python3
"""Runs golden cases: each .case file makes its input files, runs the tools, and compares
what they print, their exit status and a digest of every file they write with the
expected section of the file.

    run_case.py --bin BUILD_DIR [--update] CASE...

A case file holds steps, one per line ('#' starts a comment line):
    gen NAME KIND SIZE SEED     generated input: random, text, code, or fill (SEED = byte)
    hex NAME BYTES...           input from hex bytes
    write NAME ... end          a text file, written with CR LF line ends (its lines are
                                kept as they are, empty ones and '#' ones included)
    write-lf NAME ... end       the same with LF line ends
    mkdir NAME
    symlink NAME TARGET         NAME links to TARGET (/dev/full makes a write fail); not listed
    run TOOL ARGS...            fwforge, fwforge-inspect or fwforge-lzh
    poke NAME OFFSET BYTES...   overwrite bytes of a file (OFFSET in hex; negative from the end)
    copy NAME NEW               a copy of a file, to damage one image in several ways
    example NAME DIR            the bundled example NAME's script and generated inputs
                                (BUILD_DIR/examples/NAME) copied into DIR as inputs
    absent NAME                 records whether NAME exists (a refused run writes nothing)
    cd DIR                      later runs start in DIR (a folder of the case; '.' goes back)
    posix-only                  the case tests what only POSIX systems have (names that
                                differ in case alone): skipped (exit 77) for Windows tools
and then '==== expected', below which --update writes what the steps gave: each run's
stdout ('| ' lines), stderr ('! ' lines) and exit status, then each file that is not an
unchanged input, with its size and digest.

FWFORGE_RUNNER (say "wine") is put in front of each tool; FWFORGE_EXE_SUFFIX after its name.
With the suffix .exe the tools are Windows programs, whose console text ends its lines
with CR LF and whose composed names (fwforge's OutputPath\TAG.int and .inf, the files
that fwforge-inspect extract writes into DIR) have a backslash: before the comparison
those become LF and "/", so one expectation serves both.
"""
import argparse, hashlib, os, re, shlex, shutil, subprocess, sys, tempfile

MARK = "==== expected"
TOOLS = ("fwforge", "fwforge-inspect", "fwforge-lzh")
WORDS = ("the setup boot menu device memory option enable disable power clock video audio "
         "network storage controller serial port keyboard mouse timer cache processor "
         "password language date time save exit default").split()
SNIPPETS = [bytes.fromhex(h) for h in (
    "558bec 5dc3 b80000 894600 e80000 7400 7500 3c00 baf80c ef ed 660fb6c0 e461 "
    "cd15 fa fb 1e 1f 8ed8 eb00").split()]


def xorshift(seed):
    x = seed or 0x9E3779B9
    while True:
        x ^= (x << 13) & 0xFFFFFFFF
        x ^= x >> 17
        x ^= (x << 5) & 0xFFFFFFFF
        yield x


def generate(kind, size, seed):
    if kind == "fill":
        return bytes([seed & 0xFF]) * size
    rng = xorshift(seed)
    out = bytearray()
    if kind == "random":
        out = bytearray(next(rng) >> 24 for _ in range(size))
    elif kind == "text":
        while len(out) < size:
            r = next(rng)
            out += WORDS[r % len(WORDS)].encode() + (b".\r\n" if r >> 28 == 0 else b" ")
    elif kind == "code":
        while len(out) < size:
            r = next(rng)
            snippet = bytearray(SNIPPETS[r % len(SNIPPETS)])
            if len(snippet) > 1 and (r >> 8) & 1:
                snippet[-1] = (r >> 16) & 0xFF
            out += snippet
    else:
        raise SystemExit(f"unknown kind of input: {kind}")
    return bytes(out[:size])


def render(data, prefix):
    text = data.decode("latin-1").replace("\r", "\\r")
    lines = text.split("\n")
    tail = [] if lines[-1] == "" else ["\\ no newline"]
    if lines[-1] == "":
        lines.pop()
    return [prefix + line for line in lines] + tail


class SkipCase(Exception):
    pass


def host_console(args, text):
    """A Windows tool's console text as the POSIX build prints it."""
    text = text.replace(b"\r\n", b"\n")
    if args[0] == "fwforge" and len(args) > 1:
        folder, composed = args[1], rb"[^\\/\s]*\.in[tf]\b"
    elif args[0] == "fwforge-inspect" and len(args) > 3 and args[1] == "extract":
        folder, composed = args[3], rb"[^\\/\s]+"
    else:
        return text
    if folder[-1:] in ("/", "\\"):
        return text
    folder = re.escape(folder.encode("latin-1"))
    # The folder as a whole word, then the backslash before a name the tool composed.
    pattern = rb"(?<![^\s'\"(:])(" + folder + rb")\\(?=" + composed + rb")"
    return re.sub(pattern, rb"\1/", text)


def run_steps(steps, bin_dir, work):
    runner = shlex.split(os.environ.get("FWFORGE_RUNNER", ""))
    suffix = os.environ.get("FWFORGE_EXE_SUFFIX", "")
    windows = suffix == ".exe"
    inputs, got, cwd = {}, [], work
    i = 0
    while i < len(steps):
        words = steps[i].split()
        i += 1
        op, args = words[0], words[1:]
        if op in ("write", "write-lf"):
            body = []
            while steps[i] != "end":
                body.append(steps[i])
                i += 1
            i += 1
            eol = "\r\n" if op == "write" else "\n"
            data = "".join(line + eol for line in body).encode("latin-1")
            with open(os.path.join(work, args[0]), "wb") as f:
                f.write(data)
            inputs[args[0]] = data
        elif op == "gen":
            data = generate(args[1], int(args[2], 0), int(args[3], 0))
            with open(os.path.join(work, args[0]), "wb") as f:
                f.write(data)
            inputs[args[0]] = data
        elif op == "hex":
            data = bytes.fromhex("".join(args[1:]))
            with open(os.path.join(work, args[0]), "wb") as f:
                f.write(data)
            inputs[args[0]] = data
        elif op == "mkdir":
            os.makedirs(os.path.join(work, args[0]), exist_ok=True)
        elif op == "symlink":
            os.symlink(args[1], os.path.join(work, args[0]))
        elif op == "poke":
            path = os.path.join(work, args[0])
            if not os.path.exists(path):
                raise SystemExit("\n".join(got + [f"poke: no file {args[0]}"]))
            data = bytearray(open(path, "rb").read())
            at = int(args[1], 16) % len(data)
            new = bytes.fromhex("".join(args[2:]))
            data[at:at + len(new)] = new
            open(path, "wb").write(data)
            if args[0] in inputs:
                inputs[args[0]] = bytes(data)
        elif op == "copy":
            shutil.copyfile(os.path.join(work, args[0]), os.path.join(work, args[1]))
        elif op == "example":
            # A cross build makes no example inputs; FWFORGE_EXAMPLE_INPUTS names the
            # native build that did.
            source = os.path.join(os.environ.get("FWFORGE_EXAMPLE_INPUTS", bin_dir),
                                  "examples", args[0])
            os.makedirs(os.path.join(work, args[1]), exist_ok=True)
            for name in sorted(os.listdir(source)):
                path = os.path.join(source, name)
                # The ROM image that a run of the example may have left is no input.
                if os.path.isfile(path) and name != args[0] + ".rom" and (
                        name.endswith(".scr") or name.endswith(".bin") or name.endswith(".rom")):
                    data = open(path, "rb").read()
                    rel = args[1] + "/" + name
                    open(os.path.join(work, rel), "wb").write(data)
                    inputs[rel] = data
        elif op == "absent":
            exists = os.path.exists(os.path.join(work, args[0]))
            got.append(f"absent {args[0]}: {'no, it exists' if exists else 'yes'}")
        elif op == "posix-only":
            if windows:
                raise SkipCase()
        elif op == "cd":
            cwd = os.path.join(work, args[0])
        elif op == "run":
            if args[0] not in TOOLS:
                raise SystemExit(f"unknown tool: {args[0]}")
            exe = os.path.join(bin_dir, args[0] + suffix)
            for attempt in range(3):
                p = subprocess.run(runner + [exe] + args[1:], cwd=cwd, capture_output=True,
                                   timeout=300)
                # Now and then wine loses its own server connection before the tool runs;
                # that is wine's failure, not the tool's, and the run is made again.
                if not (runner and b"wine client error" in p.stderr):
                    break
            got.append("$ " + " ".join(args))
            out, err = p.stdout, p.stderr
            if windows:
                out, err = host_console(args, out), host_console(args, err)
            got += render(out, "| ") + render(err, "! ")
            got.append(f"= exit {p.returncode}")
        else:
            raise SystemExit(f"unknown step: {steps[i - 1]}")
    got.append("files")
    for root, dirs, files in os.walk(work):
        dirs.sort()
        for name in sorted(files):
            path = os.path.join(root, name)
            if os.path.islink(path):
                continue
            rel = os.path.relpath(path, work).replace(os.sep, "/")
            data = open(path, "rb").read()
            if inputs.get(rel) != data:
                got.append(f"{rel} {len(data)} {hashlib.sha256(data).hexdigest()[:16]}")
    return got


def run_case(path, bin_dir, update):
    text = open(path, encoding="latin-1").read()
    head, _, expected = text.partition(MARK + "\n")
    steps, in_write = [], False
    for line in head.split("\n"):
        # Inside a write block every line is file content, empty ones included.
        if in_write or (line.strip() and not line.startswith("#")):
            steps.append(line)
            in_write = (in_write and line != "end") or line.split(" ")[0] in ("write", "write-lf")
    with tempfile.TemporaryDirectory(prefix="fwforge-case-") as work:
        try:
            got = run_steps(steps, bin_dir, work)
        except SkipCase:
            print(f"SKIPPED for Windows tools: {path}")
            return None
    if update:
        with open(path, "w", encoding="latin-1", newline="\n") as f:
            f.write(head.rstrip("\n") + "\n" + MARK + "\n" + "\n".join(got) + "\n")
        return True
    want = expected.rstrip("\n").split("\n")
    if got == want:
        return True
    import difflib
    sys.stdout.writelines(line + "\n" for line in difflib.unified_diff(
        want, got, f"{path} (expected)", f"{path} (got)", lineterm=""))
    return False


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bin", required=True)
    ap.add_argument("--update", action="store_true")
    ap.add_argument("cases", nargs="+")
    a = ap.parse_args()
    results = {c: run_case(c, os.path.abspath(a.bin), a.update) for c in a.cases}
    bad = [c for c, ok in results.items() if ok is False]
    for c in bad:
        print(f"FAILED: {c}")
    if bad:
        return 1
    return 77 if all(ok is None for ok in results.values()) else 0


if __name__ == "__main__":
    sys.exit(main())
