#pragma once
// Writes build scripts (CR LF line ends) into a temporary folder, parses them and
// returns the console text, whether the parse ended in a fatal report, and the build
// description it left.

#include <gtest/gtest.h>

#include <filesystem>
#include <initializer_list>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "context/build_context.h"
#include "script/script_reader.h"
#include "support/test_files.h"

namespace fwforge::script_test {

// A temporary folder that takes scripts and files given as text.
class ScratchDir : public testing::TempDir {
  public:
    std::string Path(const std::string& name) const { return File(name); }

    std::string WriteBytes(const std::string& name, const std::string& bytes) const {
        const std::string file = Path(name);
        testing::WriteText(file, bytes);
        return file;
    }
};

// Each line followed by CR LF.
inline std::string CrLf(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\r\n";
    return text;
}

inline std::vector<std::string> Join(std::initializer_list<std::vector<std::string>> parts) {
    std::vector<std::string> all;
    for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

struct ParseResult {
    std::string console;
    bool fatal = false;
    std::string message;  // the fatal report's text
    BuildDescription description;
};

inline ParseResult ParseScriptFile(const std::string& path, bool verbose = false) {
    std::ostringstream out;
    BuildContext ctx(out);
    ctx.options.VerboseMode = verbose;
    ParseResult result;
    try {
        ParseBuildScript(ctx, path);
    } catch (const FatalError& e) {
        result.fatal = true;
        result.message = e.what();
    }
    result.console = out.str();
    result.description = ctx.description;
    return result;
}

// A valid [bios] section (lines 1-6 when it opens the script) and [module] section.
inline const std::vector<std::string> kBios = {
    "[bios]",     "file = rom.bin", "size = 00080000", "bbsize = 00010000", "nvramsize = 00004000",
    "tag = bios1"};
inline const std::vector<std::string> kModule = {"[module]", "file = post.bin", "moduleid = 08",
                                                 "destn = f000:8000"};

inline std::vector<std::string> Repeat(const std::vector<std::string>& section, int times) {
    std::vector<std::string> lines;
    for (int i = 0; i < times; ++i) lines.insert(lines.end(), section.begin(), section.end());
    return lines;
}

// Messages that several sections give.
inline const std::string kTopLevel =
    "Expected one of the following keywords: [INIT], [BIOS], or [MODULE]. ";
inline const std::string kBiosKeys =
    "Expected one of the following keywords: File, Size, BBSize, NVRAMSize, or Tag. ";
inline const std::string kModuleKeys =
    "Expected one of the following keywords: File, ModuleId, or Destn. ";
inline const std::string kEightDigit =
    "Expected eight digit hex number (i.e. 00000000 - FFFFFFFF).  ";
inline const std::string kAddress = "Expected 8 digit hex number (i.e. 00000000 - FFFFFFFF).  ";

// A script that must end in a fatal report with `message` for line `line`.
struct FatalCase {
    std::string name;
    std::vector<std::string> lines;
    std::string message;
    int line;  // 0: the message has no "Refer to" tail
};

// Asserts a fatal parse whose report is exactly `message`, printed after an empty line
// as the last console line.
inline void ExpectFatal(const ParseResult& r, const std::string& message) {
    EXPECT_TRUE(r.fatal);
    EXPECT_EQ(r.message, message);
    const std::string tail = "\nFATAL ERROR: " + message + "\n";
    ASSERT_GE(r.console.size(), tail.size()) << r.console;
    EXPECT_EQ(r.console.substr(r.console.size() - tail.size()), tail) << r.console;
}

class ScriptTest : public ::testing::Test {
  protected:
    ScriptTest() : script_path_(dir_.Path("build.scr")) {}

    ParseResult ParseText(const std::string& bytes, bool verbose = false) {
        dir_.WriteBytes("build.scr", bytes);
        return ParseScriptFile(script_path_, verbose);
    }
    ParseResult ParseLines(const std::vector<std::string>& lines, bool verbose = false) {
        return ParseText(CrLf(lines), verbose);
    }
    // The message as printed for line `line` of the last script.
    std::string AtLine(const std::string& text, int line) const {
        return text + "Refer to " + script_path_ + ", line " + std::to_string(line) + ".";
    }
    void ExpectFatalCases(std::span<const FatalCase> cases) {
        for (const FatalCase& c : cases) {
            SCOPED_TRACE(c.name);
            ExpectFatal(ParseLines(c.lines), c.line == 0 ? c.message : AtLine(c.message, c.line));
        }
    }
    ScratchDir dir_;
    const std::string script_path_;
};

}  // namespace fwforge::script_test
