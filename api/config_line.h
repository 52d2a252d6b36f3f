// The one-line descriptions that configuration objects give of themselves for logs and host
// display, and the texts their values print as.
//
// Threading: pure functions; any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "nembra/json.h"

namespace nembra {

// One entry of a description; |value| is already formatted.
struct ConfigEntry {
  std::string_view key;
  std::string value;
};

// Blanks after the opening brace and after each separating comma. Report tools compare these
// lines byte for byte, so every object keeps the widths it has always printed.
struct ConfigBlanks {
  size_t first = 24;
  size_t between = 25;
};

// "{" blanks "\"key\": value" ("," blanks "\"key\": value")... "}"
std::string configJsonLine(const std::vector<ConfigEntry>& entries, ConfigBlanks blanks = {});
// "Name{" blanks "key=value" ("," blanks "key=value")... "}"
std::string configFieldLine(std::string_view name, const std::vector<ConfigEntry>& entries,
                            ConfigBlanks blanks = {});

// Booleans print as 0 or 1.
std::string flagText(bool value);
// A missing text prints as the platform prints a missing object.
std::string nullableText(const std::optional<std::string>& text);
// The property-list form a dictionary prints in: "{\n    key = value;\n}", keys sorted, nested
// containers indented by four more blanks, arrays in parentheses, strings quoted only when they
// hold more than letters, digits, "_", "." and "$", null as "<null>", booleans as 1 or 0.
std::string dictionaryDescription(const Json& value);

}  // namespace nembra
