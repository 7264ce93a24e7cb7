#!/usr/bin/env python3
"""Runs golden cases: each .case file makes its input files, runs the tools, and compares
what they print, their exit status and a digest of every file they write with what the
file records below its '==== expected' line.

    run_case.py --bin BUILD_DIR [--update] CASE...

A case holds steps, one per line ('#' starts a comment line). Input files:
    base NAME [AS]              the steps of bases/NAME.steps: a build script build.scr
                                (or AS) and the files it names, for later steps to change
    set SECTION.KEY VALUE       sets KEY in the script last written or copied (added
                                at the end of the section when missing); SECTION is
                                'bios', or 'module#2' for the second [module] section
    del SECTION.KEY | SECTION   removes a key, or a whole section
    add [SECTION] KEY=VALUE...  appends a section (each KEY=VALUE a 'key = value' line)
    line TEXT                   appends the line TEXT to the script
    repeat N STEP [; STEP]...   the steps N times
    for A | B ... : STEP [; STEP]...  the steps once for each item, '%' replaced by it
    gen NAME KIND SIZE SEED     generated input: random, text, code, or fill (SEED = byte)
    hex NAME BYTES...           input from hex bytes
    write NAME ... end          a text file with CR LF line ends (lines kept as they are)
    write-lf NAME ... end       the same with LF line ends
    mkdir NAME | copy NAME NEW | symlink NAME TARGET (/dev/full makes a write fail)
    poke NAME OFFSET BYTES...   overwrite bytes of a file (OFFSET in hex; negative from end)
    example NAME DIR            the bundled example NAME's script and inputs, into DIR
Runs and checks:
    run TOOL ARGS...            fwforge, fwforge-inspect or fwforge-lzh; its console text
                                is recorded from the first line after the banner
    readback IMAGE              run fwforge-inspect list IMAGE, then verify IMAGE
    rebuild IMAGE DIR [OPTION]...  run fwforge-inspect extract IMAGE DIR, then, in DIR,
                                fwforge o rebuild.scr OPTION... (into a new folder DIR/o)
    run-raw TOOL ARGS...        the same, banner included (the banner is pinned once)
    absent NAME                 records whether NAME exists (a refused run writes nothing)
    cd DIR                      later runs start in DIR ('.' goes back)
    expect-bytes FILE OFFSET HEX...  the bytes of FILE at OFFSET (hex) must be these
    expect-sum32 FILE OFFSET LENGTH  its little-endian doublewords there must sum to 0
    expect-json PATH=VALUE...   in the JSON the last run printed (PATH: keys and list
                                indexes joined by '.'; VALUE: a number or a text)
    posix-only                  POSIX-only behaviour: skipped for Windows tools
Table form: 'row NAME' starts a row. The steps above the first row run first in every
row, each row in a folder of its own; 'then STEP' lines (above the first row) run after
the own steps of each row that runs no tool itself. 'row NAME: MESSAGE' is a refusal:
the row's last run must print MESSAGE and exit with a status other than 0.

Worked example (cli/refusals.case, shortened): every row builds the 128 KB base script
with one module added, changed as the row says, and must be refused with its message.

    gen short.bin random 100 2
    mkdir out
    base image_128k
    then run fwforge out build.scr
    row bbsize_zero: Boot block size must be a multiple of 4 between 4 and 65536
    set bios.bbsize 00000000
    add [module] file=short.bin moduleid=01 destn=f000:0000
    row boot_block_file_missing: Cannot open boot block file
    set init.file nobb.bin
    add [module] file=short.bin moduleid=01 destn=f000:0000
    ==== expected
    ---- bbsize_zero
    $ fwforge out build.scr
    | Parsing build.scr...
    | Generating boot block image...
    |
    | FATAL ERROR: Boot block size must be a multiple of 4 between 4 and 65536
    = exit 1
    files
    ---- boot_block_file_missing
    ...

Below '==== expected' --update writes what the steps gave: each run's stdout ('| '
lines), stderr ('! ' lines) and exit status, then each file that is not an unchanged
input, with its size and digest.

FWFORGE_RUNNER (say "wine") is put in front of each tool; FWFORGE_EXE_SUFFIX after its name.
With the suffix .exe the tools are Windows programs, whose console text ends its lines
with CR LF and whose composed names (fwforge's OutputPath\TAG.int and .inf, the files
that fwforge-inspect extract writes into DIR) have a backslash: before the comparison
those become LF and "/", so one expectation serves both.
"""
import argparse, hashlib, json, os, re, shlex, shutil, subprocess, sys, tempfile

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
    elif args[0] == "fwforge-inspect" and len(args) > 2 and args[1] == "plan":
        out = args.index("--out") if "--out" in args[:-1] else -1
        folder, composed = args[out + 1] if out > 0 else ".", rb"[^\\/\s]*\.in[tf]\b"
    else:
        return text
    if folder[-1:] in ("/", "\\"):
        return text
    folder = re.escape(folder.encode("latin-1"))
    # The folder as a whole word, then the backslash before a name the tool composed.
    pattern = rb"(?<![^\s'\"(:])(" + folder + rb")\\(?=" + composed + rb")"
    return re.sub(pattern, rb"\1/", text)



BASES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "bases")
BANNER = re.compile(rb"\A[^\n]* Version [^\n]*\nCopyright [^\n]*\n\n")


class CaseError(Exception):
    pass


def read_steps(lines):
    """The steps of a case's text: comments and blank lines go, write blocks stay whole."""
    steps, in_write = [], False
    for line in lines:
        if in_write or (line.strip() and not line.startswith("#")):
            steps.append(line)
            in_write = (in_write and line != "end") or line.split(" ")[0] in ("write", "write-lf")
    return steps


def parse_script(data):
    """A build script as [header, lines] sections; the lines before any header first."""
    sections = [[None, []]]
    for line in data.decode("latin-1").split("\r\n")[:-1]:
        if line.startswith("["):
            sections.append([line, []])
        else:
            sections[-1][1].append(line)
    return sections


def find_section(sections, name):
    name, _, nth = name.partition("#")
    found = [s for s in sections if s[0] == f"[{name}]"]
    if len(found) < int(nth or 1):
        raise CaseError(f"no section {name}#{nth or 1}")
    return found[int(nth or 1) - 1]


def edit_script(data, op, args):
    sections = parse_script(data)
    if op == "line":
        sections[-1][1].append(" ".join(args))
    elif op == "add":
        sections.append([args[0], [w.replace("=", " = ", 1) for w in args[1:]]])
    else:
        where, _, key = args[0].partition(".")
        section = find_section(sections, where)
        at = [i for i, l in enumerate(section[1]) if l.split("=")[0].strip() == key]
        if op == "del" and not key:
            sections.remove(section)
        elif op == "del":
            del section[1][at[0]]
        elif at:
            section[1][at[0]] = f"{key} = {' '.join(args[1:])}"
        else:
            section[1].append(f"{key} = {' '.join(args[1:])}")
    lines = [l for h, body in sections for l in ([h] if h else []) + body]
    return "".join(l + "\r\n" for l in lines).encode("latin-1")


def run_steps(steps, bin_dir, work):
    runner = shlex.split(os.environ.get("FWFORGE_RUNNER", ""))
    suffix = os.environ.get("FWFORGE_EXE_SUFFIX", "")
    windows = suffix == ".exe"
    inputs, got, cwd, script = {}, [], work, "build.scr"
    last = None

    def put(name, data):
        with open(os.path.join(work, name), "wb") as f:
            f.write(data)
        inputs[name] = data

    steps = list(steps)
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
            put(args[0], "".join(line + eol for line in body).encode("latin-1"))
            if args[0].endswith(".scr"):
                script = args[0]
        elif op == "base":
            base = read_steps(open(os.path.join(BASES, args[0] + ".steps")).read().split("\n"))
            as_name = args[1] if len(args) > 1 else "build.scr"
            steps[i:i] = [f"write {as_name}" if s == "write build.scr" else s for s in base]
        elif op == "for":
            items, _, body = steps[i - 1][4:].partition(" : ")
            steps[i:i] = [part for item in items.split(" | ")
                          for part in body.replace("%", item.strip()).split(" ; ")]
        elif op == "readback":
            steps[i:i] = [f"run fwforge-inspect {c} {args[0]}" for c in ("list", "verify")]
        elif op == "rebuild":
            steps[i:i] = [f"run fwforge-inspect extract {args[0]} {args[1]}", f"mkdir {args[1]}/o",
                          f"cd {args[1]}", " ".join(["run fwforge o rebuild.scr"] + args[2:]), "cd ."]
        elif op == "repeat":
            steps[i:i] = steps[i - 1].split(None, 2)[2].split(" ; ") * int(args[0])
        elif op in ("set", "del", "add", "line"):
            put(script, edit_script(open(os.path.join(work, script), "rb").read(), op, args))
        elif op == "gen":
            put(args[0], generate(args[1], int(args[2], 0), int(args[3], 0)))
        elif op == "hex":
            put(args[0], bytes.fromhex("".join(args[1:])))
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
            script = args[1] if args[1].endswith(".scr") else script
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
                    put(args[1] + "/" + name, open(path, "rb").read())
        elif op == "absent":
            exists = os.path.exists(os.path.join(work, args[0]))
            got.append(f"absent {args[0]}: {'no, it exists' if exists else 'yes'}")
        elif op == "posix-only":
            if windows:
                raise SkipCase()
        elif op == "cd":
            cwd = os.path.join(work, args[0])
        elif op == "expect-bytes":
            data = open(os.path.join(work, args[0]), "rb").read()
            at, want = int(args[1], 16), bytes.fromhex("".join(args[2:]))
            if data[at:at + len(want)] != want:
                raise CaseError(f"{args[0]} at {at:x}: {data[at:at + len(want)].hex(' ')}\n"
                                f"{' ' * len(args[0])} want: {want.hex(' ')}")
        elif op == "expect-sum32":
            data = open(os.path.join(work, args[0]), "rb").read()
            at, size = int(args[1], 16), int(args[2], 16)
            total = sum(int.from_bytes(data[k:k + 4], "little") for k in range(at, at + size, 4))
            if total % 2**32:
                raise CaseError(f"{args[0]} {at:x}+{size:x}: doublewords sum to {total % 2**32:x}")
        elif op == "expect-json":
            for item in args:
                path, _, want = item.partition("=")
                node = json.loads(last[1])
                for key in path.split("."):
                    node = node[int(key)] if isinstance(node, list) else node[key]
                if str(node) != (str(int(want, 0)) if re.fullmatch(r"(0x)?[0-9a-f]+", want) else want):
                    raise CaseError(f"{path} reads {node!r}, want {want}")
        elif op in ("run", "run-raw"):
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
            if op == "run":
                out = BANNER.sub(b"", out, count=1)
            got += render(out, "| ") + render(err, "! ")
            got.append(f"= exit {p.returncode}")
            last = (p.returncode, out + err)
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
    return got, last


def split_rows(steps):
    """A table's common steps, its 'then' steps and its rows as (NAME, MESSAGE, steps)."""
    common = [s for s in steps[:next((k for k, s in enumerate(steps) if s.startswith("row ")),
                                     len(steps))] if not s.startswith("then ")]
    then = [s[5:] for s in steps if s.startswith("then ")]
    rows = []
    for s in steps[len(common) + len(then):]:
        if s.startswith("row "):
            rows.append(s[4:].partition(": ")[::2] + ([],))
        else:
            rows[-1][2].append(s)
    return common, then, rows


def run_rows(steps, bin_dir):
    """What the steps give; in table form, each row's, under a '---- NAME' line."""
    common, then, rows = split_rows(steps)
    got = []
    for name, message, own in rows or [(None, "", [])]:
        with tempfile.TemporaryDirectory(prefix="fwforge-case-") as work:
            try:
                ran = any(re.search(r"(^|; |: )(run(-raw)?|readback|rebuild) ", s) for s in own)
                out, last = run_steps(common + own + ([] if ran else then), bin_dir, work)
            except SkipCase:
                print(f"SKIPPED for Windows tools: {name or 'the case'}")
                if name is None:
                    return None
                got.append(f"---- {name}")
                got.append("skipped")
                continue
        if message and not (last and last[0] != 0 and message.encode("latin-1") in last[1]):
            raise CaseError(f"row {name}: the last run did not refuse with: {message}")
        got += ([f"---- {name}"] if name else []) + out
    return got


def run_case(path, bin_dir, update):
    text = open(path, encoding="latin-1").read()
    head, _, expected = text.partition(MARK + "\n")
    try:
        got = run_rows(read_steps(head.split("\n")), bin_dir)
    except CaseError as e:
        print(f"{path}: {e}")
        return False
    if got is None:
        return None
    if update:
        with open(path, "w", encoding="latin-1", newline="\n") as f:
            f.write(head.rstrip("\n") + "\n" + MARK + "\n" + "\n".join(got) + "\n")
        return True
    want = expected.rstrip("\n").split("\n")
    # A row skipped for Windows tools is left out of the comparison.
    skipped = {got[k - 1] for k, line in enumerate(got) if line == "skipped"}
    if skipped:
        def drop(lines):
            out, on = [], True
            for line in lines:
                on = line not in skipped if line.startswith("---- ") else on
                out += [line] if on else []
            return out
        want, got = drop(want), drop(got)
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
