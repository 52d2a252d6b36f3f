#include "api/config_line.h"

#include <algorithm>
#include <cctype>

namespace nembra {

namespace {

std::string joinedLine(std::string opener, const std::vector<ConfigEntry>& entries,
                       ConfigBlanks blanks, bool quotedKeys) {
  std::string line = std::move(opener);
  bool first = true;
  for (const ConfigEntry& entry : entries) {
    if (first) {
      line.append(blanks.first, ' ');
      first = false;
    } else {
      line += ',';
      line.append(blanks.between, ' ');
    }
    if (quotedKeys) {
      line += '"';
      line += entry.key;
      line += "\": ";
    } else {
      line += entry.key;
      line += '=';
    }
    line += entry.value;
  }
  line += '}';
  return line;
}

bool needsQuotes(const std::string& text) {
  if (text.empty()) return true;
  return !std::all_of(text.begin(), text.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == '$';
  });
}

std::string stringDescription(const std::string& text) {
  if (!needsQuotes(text)) return text;
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (c == '\n') {
      quoted += "\\n";
    } else {
      quoted += c;
    }
  }
  quoted += '"';
  return quoted;
}

std::string describe(const Json& value, size_t indent) {
  const std::string inner(indent + 4, ' ');
  const std::string outer(indent, ' ');
  if (value.is_object()) {
    std::vector<std::string> keys;
    for (const auto& entry : value.items()) keys.push_back(entry.key());
    std::sort(keys.begin(), keys.end());
    std::string text = "{\n";
    for (const std::string& key : keys) {
      text += inner + stringDescription(key) + " = " + describe(value.at(key), indent + 4) + ";\n";
    }
    return text + outer + "}";
  }
  if (value.is_array()) {
    std::string text = "(\n";
    for (size_t i = 0; i < value.size(); ++i) {
      text += inner + describe(value[i], indent + 4) + (i + 1 < value.size() ? ",\n" : "\n");
    }
    return text + outer + ")";
  }
  if (value.is_string()) return stringDescription(value.get<std::string>());
  if (value.is_boolean()) return flagText(value.get<bool>());
  if (value.is_null()) return "<null>";
  return value.dump();
}

}  // namespace

std::string configJsonLine(const std::vector<ConfigEntry>& entries, ConfigBlanks blanks) {
  return joinedLine("{", entries, blanks, true);
}

std::string configFieldLine(std::string_view name, const std::vector<ConfigEntry>& entries,
                            ConfigBlanks blanks) {
  return joinedLine(std::string(name) + "{", entries, blanks, false);
}

std::string flagText(bool value) { return value ? "1" : "0"; }

std::string nullableText(const std::optional<std::string>& text) { return text ? *text : "(null)"; }

std::string dictionaryDescription(const Json& value) { return describe(value, 0); }

}  // namespace nembra
