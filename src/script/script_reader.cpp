#include "script/script_reader.h"

#include <new>
#include <stdexcept>

#include "platform/text_format.h"
#include "script/script_parser.h"

namespace fwforge {

void ParseBuildScript(Diagnostics& diag, platform::FileSystem& files, BuildDescription& description,
                      const std::string& path, bool verbose) {
    script::ScriptParser parser(diag, files, description, path, verbose);
    try {
        parser.Run();
    } catch (const std::bad_alloc&) {
        // The text buffer and the records the script adds are the only allocations.
        diag.Fatal("Out of memory");
    }
}

namespace script {
namespace {

// CR LF is the only line end; a CR or an LF alone is an ordinary character.
constexpr std::uint8_t kCr = 0x0D;
constexpr std::uint8_t kLf = 0x0A;
// A text editor's end-of-file mark; at the start of a top-level line it ends the script.
constexpr std::uint8_t kEndMark = 0x1A;

bool IsBlank(std::uint8_t c) {
    return c == ' ' || c == '\t' || c == 0xFF;
}

}  // namespace

ScriptParser::ScriptParser(Diagnostics& diag, platform::FileSystem& files,
                           BuildDescription& description, std::string path, bool verbose)
    : diag_(diag), files_(files), desc_(description), verbose_(verbose), script_file_name_(std::move(path)) {}

void ScriptParser::Run() {
    desc_.ModuleHeaderExtension = module_header::kExtensionSize;
    desc_.MainHeaderExtension = main_header::kExtensionSize;
    ReadScriptFile();
    diag_.Printf("Parsing %s...\n", script_file_name_.c_str());

    // Keywords, yes/no values and file names are compared in lower case from here on.
    // The conversion stops at the first zero byte, like the C string it once was.
    for (std::uint8_t& c : text_) {
        if (c == 0) break;
        if (c >= 'A' && c <= 'Z') c = static_cast<std::uint8_t>(c - 'A' + 'a');
    }
    line_ = 1;
    pos_ = 0;
    TopLevelLoop();
    CheckBuildScript();
}

void ScriptParser::ReadScriptFile() {
    auto file = files_.Open(script_file_name_);
    if (!file) Fatal("Cannot open script file");
    const auto size = file->Size();
    if (!size) Fatal("Cannot determine script file size");
    try {
        if (*size >= text_.max_size()) throw std::length_error("script file size");
        text_.assign(static_cast<std::size_t>(*size) + 1, 0);
    } catch (const std::exception&) {
        Fatal("Out of memory");
    }
    size_ = static_cast<std::size_t>(*size);
    if (!file->ReadExactly(std::span<std::uint8_t>(text_.data(), size_))) {
        text_.clear();
        Fatal("Cannot read script file");
    }
}

void ScriptParser::TopLevelLoop() {
    struct SectionEntry {
        std::string_view text;
        void (ScriptParser::*parse)(std::size_t index);
    };
    // "[noncriticalrom]" shares the ROM-hole parser; only its header length differs.
    static constexpr SectionEntry kSectionTable[] = {
        {"[init]", &ScriptParser::ParseInitSection},
        {"[bios]", &ScriptParser::ParseBiosSection},
        {"[module]", &ScriptParser::ParseModuleSection},
        {"[romhole]", &ScriptParser::ParseRomHoleSection},
        {"[romimage]", &ScriptParser::ParseRomImageSection},
        {"[noncriticalrom]", &ScriptParser::ParseRomHoleSection},
        {"//", &ScriptParser::ParseCommentLine},
    };

    while (!AtEnd()) {
        if (AtLineEnd()) {
            ++line_;
            pos_ += 2;
            continue;
        }
        bool matched = false;
        for (std::size_t i = 0; i < std::size(kSectionTable); ++i) {
            const SectionEntry& entry = kSectionTable[i];
            if (!TextStartsWith(entry.text)) continue;
            matched = true;
            if (verbose_) {
                diag_.Printf("PROCESSING: %s\n", std::string(entry.text).c_str());
            }
            (this->*entry.parse)(i);
            // The stamp module's file is read again after every section (and comment)
            // while it is the current module; the result is the same every time.
            if (current_module_ &&
                desc_.ModuleTable[*current_module_].Header.id == kBootBlockStampModuleId) {
                ReadBootBlockStamp();
            }
            break;
        }
        if (matched) continue;
        if (Byte(pos_) == kEndMark) return;
        Fail(
            "Expected one of the following keywords: [INIT], [BIOS], or [MODULE]. "
            "Refer to %s, line %d.");
    }
}

void ScriptParser::ParseCommentLine(std::size_t) {
    while (!AtEnd() && !AtLineEnd()) ++pos_;
}

bool ScriptParser::AtLineEnd() const {
    return pos_ + 1 < size_ && text_[pos_] == kCr && text_[pos_ + 1] == kLf;
}

bool ScriptParser::TextStartsWith(std::string_view keyword) const {
    if (pos_ > size_ || size_ - pos_ < keyword.size()) return false;
    for (std::size_t i = 0; i < keyword.size(); ++i) {
        if (text_[pos_ + i] != static_cast<std::uint8_t>(keyword[i])) return false;
    }
    return true;
}

void ScriptParser::SkipBlanks() {
    while (!AtEnd() && IsBlank(text_[pos_])) ++pos_;
}

void ScriptParser::ExpectEndOfLine() {
    if (!AtLineEnd()) Fail("Expected EOL.  Refer to %s, line %d.");
}

void ScriptParser::EnterSection(std::size_t section_index) {
    static constexpr std::size_t kHeaderLength[] = {
        sizeof("[init]") - 1,    sizeof("[bios]") - 1,     sizeof("[module]") - 1,
        sizeof("[romhole]") - 1, sizeof("[romimage]") - 1, sizeof("[noncriticalrom]") - 1,
    };
    pos_ += kHeaderLength[section_index];
    SkipBlanks();
    ExpectEndOfLine();
    pos_ += 2;
    ++line_;
}

void ScriptParser::RunKeyLoop(std::span<const KeyEntry> table) {
    while (!AtEnd()) {
        if (AtLineEnd()) {
            ++line_;
            pos_ += 2;
            continue;
        }
        // A key may follow another key's value on the same line; anything else ends
        // the section at this position, and the top level looks at it next.
        const KeyEntry* match = nullptr;
        for (const KeyEntry& entry : table) {
            if (TextStartsWith(entry.text)) {
                match = &entry;
                break;
            }
        }
        if (match == nullptr) return;
        (this->*match->parse)(match->text);
    }
}

std::string ScriptParser::ReadKeyValue(std::string_view key) {
    pos_ += key.size();
    SkipBlanks();
    if (Byte(pos_) != '=' || AtEnd()) Fail("Expected '='.  Refer to %s, line %d.");
    ++pos_;
    SkipBlanks();
    ReadToken();
    SkipBlanks();
    return token_.substr(0, token_.find('\0'));
}

void ScriptParser::ReadToken() {
    if (AtLineEnd()) Fail("Syntax error.  Refer to %s, line %d.");
    token_.clear();
    while (!AtEnd() && token_.size() < kMaxTokenLength) {
        const std::uint8_t c = text_[pos_];
        if (c == ' ' || c == '\t' || AtLineEnd()) break;
        token_.push_back(static_cast<char>(c));
        ++pos_;
    }
}

void ScriptParser::Fail(const char* format_with_tail) {
    Fatal(StrFormat(format_with_tail, script_file_name_.c_str(), line_));
}

}  // namespace script
}  // namespace fwforge
