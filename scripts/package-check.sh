#!/usr/bin/env bash
# Makes both packages (scripts/package.sh) and tries them as a user would:
# - the Debian package holds exactly the programs, manual pages, completion and
#   documents, and depends on the C library alone;
# - apt-get installs it; from a clean folder its programs build the bundled examples,
#   verify the images and print their versions; man renders each page; a bash started
#   for the test completes the helper tools' commands; apt-get purge leaves nothing;
# - the Windows zip holds exactly the .exe files, the pages as text, the PowerShell
#   completion and the documents, and its programs, under wine, build the same ROM
#   image, .int and .inf files as the Debian package's.
# Installs the package on this machine (as root, or through sudo) and removes it again.
# Usage: scripts/package-check.sh
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

scripts/deps.sh package windows
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)

status=0
fail() {
    echo "FAILED: $*"
    status=1
}
scratch=$(mktemp -d)
installed=no
cleanup() {
    if [ $installed = yes ]; then
        "${sudo_cmd[@]}" apt-get purge -y -qq fwforge >/dev/null 2>&1 || true
    fi
    wineserver --kill >/dev/null 2>&1 || true
    rm -rf "$scratch"
}
trap cleanup EXIT

# Builds a package quietly (its log when it fails) and prints its path.
make_package() {
    if ! scripts/package.sh "$1" >"$scratch/$1.log" 2>&1; then
        tail -n 40 "$scratch/$1.log" >&2
        echo "scripts/package.sh $1 failed" >&2
        exit 1
    fi
    tail -n 1 "$scratch/$1.log"
}
deb=$root/$(make_package deb)
zip=$root/$(make_package zip)

project_version=$(sed -n 's/^project(fwforge VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
version=$(dpkg-deb -f "$deb" Version)
echo "Debian package: ${deb#"$root/"}"
echo "Windows zip:    ${zip#"$root/"}"
[[ $version =~ ^${project_version//./\\.}(\+g[0-9a-f]+)?$ ]] ||
    fail "package version $version is not $project_version with a commit"
[ "$(basename "$deb")" = "fwforge_${version}_$(dpkg --print-architecture).deb" ] ||
    fail "$(basename "$deb") is not named after package, version and architecture"
[ "$(basename "$zip")" = "fwforge-$version-win64.zip" ] ||
    fail "$(basename "$zip") does not carry the Debian package's version $version"

# --- The Debian package ---------------------------------------------------------------
expected_deb="./usr/
./usr/bin/
./usr/bin/fwforge
./usr/bin/fwforge-inspect
./usr/bin/fwforge-lzh
./usr/share/
./usr/share/bash-completion/
./usr/share/bash-completion/completions/
./usr/share/bash-completion/completions/fwforge-inspect
./usr/share/bash-completion/completions/fwforge-lzh
./usr/share/doc/
./usr/share/doc/fwforge/
./usr/share/doc/fwforge/README.md
./usr/share/doc/fwforge/copyright
./usr/share/man/
./usr/share/man/man1/
./usr/share/man/man1/fwforge-inspect.1.gz
./usr/share/man/man1/fwforge-lzh.1.gz
./usr/share/man/man1/fwforge.1.gz"
if diff <(echo "$expected_deb") <(dpkg -c "$deb" | awk '{print $6}' | sort) >"$scratch/diff"; then
    echo "dpkg -c: the programs, manual pages, completion and documents, nothing else"
else
    fail "dpkg -c lists other files (< expected, > in the package):"
    cat "$scratch/diff"
fi
depends=$(dpkg-deb -f "$deb" Depends)
if [[ $depends =~ ^libc6(\ \(\>=\ [0-9.]+\))?$ ]]; then
    echo "Depends: $depends"
else
    fail "the package depends on more than the C library: $depends"
fi

if dpkg-query -W -f='${Status}' fwforge 2>/dev/null | grep -q 'install ok installed'; then
    echo "fwforge is installed on this machine already; the check would replace it" >&2
    exit 1
fi
installed=yes
if ! "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$deb" \
    >"$scratch/apt.log" 2>&1; then
    cat "$scratch/apt.log"
    fail "apt-get install $deb"
    exit 1
fi
echo "apt-get install: fwforge $(dpkg-query -W -f='${Version}' fwforge) installed"

# The bundled examples, built by the installed programs in folders of their own with
# only the inputs, which the package build generated.
for example in firmware firmware2; do
    work=$scratch/linux/$example
    mkdir -p "$work/out"
    find "build-pkg/examples/$example" -maxdepth 1 -type f ! -name Makefile ! -name '*.cmake' \
        ! -name 'make_inputs*' -exec cp {} "$work/" \;
    if (cd "$work" && /usr/bin/fwforge out "$example.scr" >console.txt); then
        banner=$(head -n 1 "$work/console.txt")
        [[ $banner == *"Version $project_version "* ]] || fail "$example: banner '$banner'"
        echo "$example: built by /usr/bin/fwforge ($banner)"
    else
        fail "$example: /usr/bin/fwforge failed:"
        tail -n 3 "$work/console.txt"
    fi
    rom=$(awk 'BEGIN{RS="\r\n"} /^\[bios\]/{b=1} b && /^file/{print $3; exit}' "$work/$example.scr")
    echo "$rom" >"$work/rom-name"
    if /usr/bin/fwforge-inspect verify "$work/$rom" >"$work/verify.txt"; then
        echo "$example: fwforge-inspect $(cat "$work/verify.txt")"
    else
        fail "$example: fwforge-inspect verify $rom"
        cat "$work/verify.txt"
    fi
done
# A text compresses (a ROM image of compressed modules would not, and its stream would be
# cut off at the encoder's output bound).
readme=/usr/share/doc/fwforge/README.md
if /usr/bin/fwforge-lzh c $readme "$scratch/readme.lh5" &&
    /usr/bin/fwforge-lzh d "$scratch/readme.lh5" "$scratch/readme.md" && cmp -s $readme "$scratch/readme.md"; then
    echo "fwforge-lzh: $readme compressed to $(wc -c <"$scratch/readme.lh5") bytes and back"
else
    fail "fwforge-lzh does not give $readme back"
fi
for tool in fwforge-inspect fwforge-lzh; do
    answer=$(/usr/bin/$tool --version)
    [ "$answer" = "$tool $version" ] || fail "$tool --version says '$answer', not '$tool $version'"
    echo "$answer"
done

for tool in fwforge fwforge-inspect fwforge-lzh; do
    page=$(man -w "$tool" 2>/dev/null || true)
    [ "$page" = "/usr/share/man/man1/$tool.1.gz" ] || fail "man -w $tool: '$page'"
    if text=$(MANWIDTH=80 LC_ALL=C.UTF-8 man --warnings "$tool" 2>"$scratch/warnings") &&
        [ ! -s "$scratch/warnings" ] && [[ $text == *NAME*"$tool"* ]]; then
        echo "man $tool: $(grep -c '' <<<"$text") lines"
    else
        fail "man $tool does not render cleanly:"
        cat "$scratch/warnings"
    fi
done

# Completion in a bash of its own, with nothing but bash-completion loaded, as a
# login shell of the machine has it; the word lists are what Tab offers.
complete_line() {
    (cd "$scratch/linux/firmware" && env -i HOME="$scratch" PATH=/usr/bin:/bin LINE="$1" \
        bash --norc --noprofile -c '
            . /usr/share/bash-completion/bash_completion
            read -r -a COMP_WORDS <<<"$LINE"
            [[ $LINE == *" " ]] && COMP_WORDS+=("")
            COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMP_LINE=$LINE COMP_POINT=${#LINE}
            command=${COMP_WORDS[0]}
            __load_completion "$command" || exit 1
            function=$(complete -p "$command" | sed -n "s/.* -F \([^ ]*\) .*/\1/p")
            "$function" "$command" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
            printf "%s\n" "${COMPREPLY[@]}" | sort | tr "\n" " "')
}
check_completion() {
    local offered
    offered=$(complete_line "$1")
    if [ "$offered" = "$2 " ]; then
        echo "completion of '$1': $2"
    else
        fail "completion of '$1' offers '$offered', not '$2'"
    fi
}
check_completion "fwforge-inspect " "diff extract list map plan replace verify"
check_completion "fwforge-inspect --v" "--version"
check_completion "fwforge-inspect replace firmware.rom --m" "--module"
check_completion "fwforge-inspect verify firmware.r" "firmware.rom"
check_completion "fwforge-lzh " "c d"

installed=no
"${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq fwforge >"$scratch/apt.log" 2>&1 ||
    { cat "$scratch/apt.log"; fail "apt-get purge fwforge"; }
left=$(dpkg-query -W -f='${Status}' fwforge 2>/dev/null || true)
for path in $(echo "$expected_deb" | grep -v '/$' | cut -c2-) /usr/share/doc/fwforge; do
    [ ! -e "$path" ] || left+=" $path"
done
if [ -z "${left// /}" ] || [ "$left" = "unknown ok not-installed" ]; then
    echo "apt-get purge: the package and its files are gone"
else
    fail "apt-get purge left: $left"
fi

# --- The Windows zip ------------------------------------------------------------------
top=fwforge-$version-win64
expected_zip="$top/LICENSE.txt
$top/README.md
$top/fwforge-inspect.exe
$top/fwforge-lzh.exe
$top/fwforge.exe
$top/fwforge.ps1
$top/manual/fwforge-inspect.txt
$top/manual/fwforge-lzh.txt
$top/manual/fwforge.txt"
mkdir -p "$scratch/zip"
(cd "$scratch/zip" && cmake -E tar xf "$zip")
if diff <(echo "$expected_zip") <(cd "$scratch/zip" && find . -type f | cut -c3- | LC_ALL=C sort) \
    >"$scratch/diff"; then
    echo "zip: the .exe files, manual pages, PowerShell completion and documents, nothing else"
else
    fail "the zip holds other files (< expected, > in the zip):"
    cat "$scratch/diff"
fi
for tool in fwforge fwforge-inspect fwforge-lzh; do
    grep -q $'^NAME\r$' "$scratch/zip/$top/manual/$tool.txt" ||
        fail "manual/$tool.txt is no text page with CR LF line ends"
done

# Wine keeps its state in the prefix that scripts/windows-check.sh uses, made here if
# that check has not run; one wine server for all runs.
export WINEPREFIX=$root/build-win/wine WINEARCH=win64 WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY
mkdir -p "$WINEPREFIX"
wineserver --persistent 2>/dev/null || true
wineboot --init >/dev/null 2>&1 </dev/null || true
bin=$scratch/zip/$top
for example in firmware firmware2; do
    linux=$scratch/linux/$example
    work=$scratch/windows/$example
    mkdir -p "$work/out"
    find "build-pkg/examples/$example" -maxdepth 1 -type f ! -name Makefile ! -name '*.cmake' \
        ! -name 'make_inputs*' -exec cp {} "$work/" \;
    (cd "$work" && wine "$bin/fwforge.exe" out "$example.scr" >console.txt) ||
        fail "$example: fwforge.exe failed under wine"
    rom=$(cat "$linux/rom-name")
    for f in "$rom" $(cd "$linux" && ls out | sed 's|^|out/|'); do
        if [ -f "$work/$f" ] && cmp -s "$linux/$f" "$work/$f"; then
            echo "$example: $f from the zip's fwforge.exe identical ($(sha256sum <"$work/$f" | cut -c1-16))"
        else
            fail "$example: $f DIFFERS between the zip's and the Debian package's programs"
        fi
    done
    # A name of the folder: a word that starts with / is an option on Windows.
    (cd "$work" && wine "$bin/fwforge-inspect.exe" verify "$rom" >/dev/null) ||
        fail "$example: fwforge-inspect.exe verify $rom"
done
for tool in fwforge-inspect fwforge-lzh; do
    answer=$(wine "$bin/$tool.exe" --version | tr -d '\r')
    [ "$answer" = "$tool $version" ] || fail "$tool.exe --version says '$answer'"
    echo "$answer (.exe)"
done

[ $status -eq 0 ] && echo "Package check: OK" || echo "Package check: FAILED"
exit $status
