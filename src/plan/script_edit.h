#pragma once
// Edits of a build script's text: one key of one section, found by the section's kind
// and its position among the sections of that kind. A plan's suggestions are such edits,
// so that a script (or a person) can apply them to the script as it is written, comments,
// order and spelling kept.

#include <optional>
#include <string>
#include <vector>

namespace fwforge::plan {

struct ScriptEdit {
    std::string section;  // the section's kind: "bios", "module", "romhole", ...
    int index = 0;        // the Nth section of that kind in the script, from 0
    std::string key;
    std::optional<std::string> old_value;  // nullopt: the section does not give the key
    std::optional<std::string> new_value;  // nullopt: the key is removed
};

// One section of a script: its kind, and its values by key, in the order they are given.
struct ScriptSection {
    std::string kind;
    std::vector<std::pair<std::string, std::string>> keys;  // lower case
    // The value of the first line that gives `key`; nullopt when none does.
    std::optional<std::string> Value(const std::string& key) const;
};

// The sections of the script text in order. Keys and values are read as the build reads
// them: a key at the start of a line, '=', the value up to the next blank; a line that
// gives no key ends the section.
std::vector<ScriptSection> ReadSections(const std::string& text);

// The script with the edit applied: the key's line rewritten as "key = value", added
// right below the section's header line, or removed. Nullopt when the script has no such
// section, or the old value is not what the script gives.
std::optional<std::string> ApplyEdit(const std::string& text, const ScriptEdit& edit);

}  // namespace fwforge::plan
