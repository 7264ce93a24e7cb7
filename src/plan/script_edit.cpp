#include "plan/script_edit.h"

#include <cstddef>

namespace fwforge::plan {
namespace {

std::string Lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\xFF';
}

// The script's lines without their CR LF ends; the text after the last CR LF is a line
// of its own.
std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t from = 0;
    for (std::size_t at = text.find("\r\n"); at != std::string::npos;
         at = text.find("\r\n", from)) {
        lines.push_back(text.substr(from, at - from));
        from = at + 2;
    }
    lines.push_back(text.substr(from));
    return lines;
}

// "[kind]" at the start of the line: its kind; "" for any other line.
std::string SectionKind(const std::string& line) {
    if (line.empty() || line[0] != '[') return "";
    const std::size_t close = line.find(']');
    if (close == std::string::npos) return "";
    return Lower(line.substr(1, close - 1));
}

// "key = value ..." at the start of the line: key and value; nullopt for any other line.
std::optional<std::pair<std::string, std::string>> KeyLine(const std::string& line) {
    std::size_t at = 0;
    while (at < line.size() && ((line[at] >= 'a' && line[at] <= 'z') ||
                                (line[at] >= 'A' && line[at] <= 'Z') ||
                                (line[at] >= '0' && line[at] <= '9'))) {
        ++at;
    }
    if (at == 0) return std::nullopt;
    std::string key = Lower(line.substr(0, at));
    while (at < line.size() && IsBlank(line[at])) ++at;
    if (at >= line.size() || line[at] != '=') return std::nullopt;
    ++at;
    while (at < line.size() && IsBlank(line[at])) ++at;
    std::size_t end = at;
    while (end < line.size() && line[end] != ' ' && line[end] != '\t') ++end;
    return std::pair{std::move(key), Lower(line.substr(at, end - at))};
}

struct Located {
    std::size_t header = 0;  // line of the section header
    std::size_t end = 0;     // one past its last key line
};

std::optional<Located> Locate(const std::vector<std::string>& lines, const std::string& kind,
                              int index) {
    int seen = 0;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (SectionKind(lines[i]) != kind) continue;
        if (seen++ != index) continue;
        Located out{i, i + 1};
        while (out.end < lines.size() && (lines[out.end].empty() || KeyLine(lines[out.end]))) {
            ++out.end;
        }
        return out;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> ScriptSection::Value(const std::string& key) const {
    for (const auto& [k, v] : keys) {
        if (k == key) return v;
    }
    return std::nullopt;
}

std::vector<ScriptSection> ReadSections(const std::string& text) {
    std::vector<ScriptSection> sections;
    bool in_section = false;
    for (const std::string& line : Lines(text)) {
        const std::string kind = SectionKind(line);
        if (!kind.empty()) {
            sections.push_back({kind, {}});
            in_section = true;
            continue;
        }
        if (line.empty()) continue;
        const auto key = KeyLine(line);
        if (!key) {
            in_section = false;
            continue;
        }
        if (in_section) sections.back().keys.push_back(*key);
    }
    return sections;
}

std::optional<std::string> ApplyEdit(const std::string& text, const ScriptEdit& edit) {
    std::vector<std::string> lines = Lines(text);
    const auto at = Locate(lines, Lower(edit.section), edit.index);
    if (!at) return std::nullopt;
    const std::string key = Lower(edit.key);
    std::optional<std::size_t> line;
    for (std::size_t i = at->header + 1; i < at->end && !line; ++i) {
        const auto k = KeyLine(lines[i]);
        if (k && k->first == key) line = i;
    }
    const std::optional<std::string> old =
        line ? std::optional<std::string>(KeyLine(lines[*line])->second) : std::nullopt;
    if (old != (edit.old_value ? std::optional<std::string>(Lower(*edit.old_value))
                               : std::nullopt)) {
        return std::nullopt;
    }
    if (!edit.new_value) {
        if (line) lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(*line));
    } else if (line) {
        lines[*line] = key + " = " + *edit.new_value;
    } else {
        lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(at->header + 1),
                     key + " = " + *edit.new_value);
    }
    std::string out;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        out += lines[i];
        if (i + 1 < lines.size()) out += "\r\n";
    }
    return out;
}

}  // namespace fwforge::plan
