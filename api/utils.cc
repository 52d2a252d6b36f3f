#include "api/utils.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <random>

#include "api/console_log.h"
#include "api/percent_encoding.h"

namespace nembra {

namespace {

// Seconds between the Unix epoch and 2001-01-01 00:00:00 UTC, where absolute time starts.
constexpr int64_t kAbsoluteTimeEpochOffset = 978307200;

const Json* valueFor(const Json& json, const std::string& key) {
  if (!json.is_object()) return nullptr;
  auto it = json.find(key);
  return it == json.end() ? nullptr : &*it;
}

// The value under |key| unless it is missing or null.
const Json* presentValue(const Json& json, const std::string& key) {
  const Json* value = valueFor(json, key);
  if (!value || Utils::isNsNull(json, key)) return nullptr;
  return value;
}

// Reads the leading integer of |text| as a string scanner does: blanks, a sign, digits; the
// rest is ignored. Saturates instead of overflowing; no digits gives 0.
int64_t leadingInteger(const std::string& text) {
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  const uint64_t limit = negative ? uint64_t{1} << 63 : (uint64_t{1} << 63) - 1;
  uint64_t magnitude = 0;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
    if (magnitude > (limit - digit) / 10) {
      magnitude = limit;
      break;
    }
    magnitude = magnitude * 10 + digit;
  }
  if (!negative) return static_cast<int64_t>(magnitude);
  return magnitude == limit ? std::numeric_limits<int64_t>::min()
                            : -static_cast<int64_t>(magnitude);
}

double leadingDouble(const std::string& text) {
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  if (i < text.size() && text[i] == '+') ++i;
  double value = 0.0;
  auto [ptr, ec] = std::from_chars(text.data() + i, text.data() + text.size(), value);
  if (ec != std::errc() || !std::isfinite(value)) return 0.0;
  return value;
}

int64_t saturatingInteger(double value) {
  constexpr double kTwoTo63 = 9223372036854775808.0;
  if (value >= kTwoTo63) return std::numeric_limits<int64_t>::max();
  if (value < -kTwoTo63) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

int64_t readLong(const Json& value) {
  if (value.is_number_unsigned()) {
    uint64_t v = value.get<uint64_t>();
    return v > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
               ? std::numeric_limits<int64_t>::max()
               : static_cast<int64_t>(v);
  }
  if (value.is_number_integer()) return value.get<int64_t>();
  if (value.is_number_float()) return saturatingInteger(value.get<double>());
  if (value.is_boolean()) return value.get<bool>() ? 1 : 0;
  if (value.is_string()) return leadingInteger(value.get<std::string>());
  return 0;
}

uint32_t randomBelowMax() {
  thread_local std::mt19937 generator{std::random_device{}()};
  std::uniform_int_distribution<uint32_t> distribution(0, 4294967294u);
  return distribution(generator);
}

}  // namespace

std::string Utils::getDocumentsDirectory(FileSystem& fs) { return fs.documentsDirectory(); }

std::optional<std::string> Utils::getSharedDirectoryForAppGroup(const std::string& appGroup,
                                                                FileSystem& fs) {
  return fs.containerForAppGroup(appGroup);
}

std::optional<std::string> Utils::getWritableSharedDirectoryForAppGroup(const std::string& appGroup,
                                                                        FileSystem& fs) {
  std::optional<std::string> container = getSharedDirectoryForAppGroup(appGroup, fs);
  if (!container) return std::nullopt;
  return *container + "/Library/Caches";
}

std::optional<std::string> Utils::getSharedScreenRecordingDirectoryForAppGroup(
    const std::string& appGroup, FileSystem& fs) {
  std::optional<std::string> writable = getWritableSharedDirectoryForAppGroup(appGroup, fs);
  if (!writable) return std::nullopt;
  std::string directory = *writable + "/com.nembra.screen-recording";
  if (FileSystem::createDirectories(directory)) return std::nullopt;
  return directory;
}

OptionalError Utils::moveFileWithSource(const std::string& source, const std::string& to) {
  std::string name = std::filesystem::path(source).filename().string();
  OptionalError error = FileSystem::moveItem(source, to + "/" + name);
  if (error) consoleLog("Unexpected error: " + error->message + ".");
  return error;
}

std::optional<std::string> Utils::copyFileToTemporaryDirectory(const std::string& path,
                                                               const std::string& fileExtension,
                                                               FileSystem& fs) {
  const int64_t unixSeconds = std::chrono::duration_cast<std::chrono::seconds>(
                                  std::chrono::system_clock::now().time_since_epoch())
                                  .count();
  // Absolute time in whole seconds fits in 32 bits until 2069.
  const int32_t seconds = static_cast<int32_t>(unixSeconds - kAbsoluteTimeEpochOffset);
  char name[32];
  std::snprintf(name, sizeof(name), "%" PRIi32 "_%" PRIu32 ".", seconds, randomBelowMax());
  const std::string temporary = fs.temporaryDirectory() + "/" + name + fileExtension;
  if (OptionalError error = FileSystem::copyItem(path, temporary)) {
    consoleLog("Failed to copy file " + path + " to temporary file " + temporary + ": " +
               error->message);
    return std::nullopt;
  }
  consoleLog("Copied file " + path + " to temporary file " + temporary);
  return temporary;
}

void Utils::removeFileWithUrl(const std::string& url) {
  if (std::optional<std::string> path = pathFromFileUrl(url)) removeFileWithPath(*path);
}

void Utils::removeFileWithPath(const std::string& path) { FileSystem::removeItem(path); }

uint64_t Utils::fileSize(const std::string& path) { return FileSystem::fileSize(path).value_or(0); }

std::string Utils::textualForm(const Json& value) {
  switch (value.type()) {
    case Json::value_t::string:
      return value.get<std::string>();
    case Json::value_t::boolean:
      return value.get<bool>() ? "1" : "0";
    case Json::value_t::number_integer:
      return std::to_string(value.get<int64_t>());
    case Json::value_t::number_unsigned:
      return std::to_string(value.get<uint64_t>());
    case Json::value_t::number_float: {
      // Shortest text that reads back as the same double; whole numbers have no ".0".
      char buffer[32];
      auto result = std::to_chars(buffer, buffer + sizeof(buffer), value.get<double>());
      return std::string(buffer, result.ptr);
    }
    case Json::value_t::null:
      return "<null>";
    default:
      // Parsed JSON is valid UTF-8; a value built in code may not be, and must not throw here.
      return value.dump(-1, ' ', false, Json::error_handler_t::replace);
  }
}

bool Utils::isNsNull(const Json& json, const std::string& key) {
  const Json* value = valueFor(json, key);
  if (!value) return false;
  if (value->is_null()) return true;
  if (!value->is_string()) return false;
  const std::string& text = value->get_ref<const std::string&>();
  return text == "<null>" || text == "null";
}

std::string Utils::getStringFromJson(const Json& json, const std::string& key) {
  const Json* value = presentValue(json, key);
  return value ? textualForm(*value) : "";
}

std::optional<Json> Utils::getObjectFromJson(const Json& json, const std::string& key) {
  const Json* value = presentValue(json, key);
  if (!value) return std::nullopt;
  return *value;
}

std::optional<Json> Utils::getArrayFromJson(const Json& json, const std::string& key) {
  const Json* value = presentValue(json, key);
  if (!value || !value->is_array()) return std::nullopt;
  return *value;
}

std::optional<Json> Utils::getDictionaryFromJson(const Json& json, const std::string& key) {
  const Json* value = presentValue(json, key);
  if (!value || !value->is_object()) return std::nullopt;
  return *value;
}

int32_t Utils::getIntFromJson(const Json& json, const std::string& key) {
  const Json* value = presentValue(json, key);
  if (!value) return 0;
  return static_cast<int32_t>(std::clamp<int64_t>(
      readLong(*value), std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
}

int64_t Utils::getLongFromJson(const Json& json, const std::string& key) {
  const Json* value = presentValue(json, key);
  return value ? readLong(*value) : 0;
}

double Utils::getDoubleFromJson(const Json& json, const std::string& key) {
  const Json* value = presentValue(json, key);
  if (!value) return 0.0;
  if (value->is_number()) return value->get<double>();
  if (value->is_boolean()) return value->get<bool>() ? 1.0 : 0.0;
  if (value->is_string()) return leadingDouble(value->get<std::string>());
  return 0.0;
}

bool Utils::getBoolFromJson(const Json& json, const std::string& key) {
  const Json* value = presentValue(json, key);
  return value && textualForm(*value) == "true";
}

std::optional<std::string> Utils::pathFromFileUrl(const std::string& url) {
  constexpr std::string_view kScheme = "file://";
  if (url.size() < kScheme.size()) return std::nullopt;
  for (size_t i = 0; i < kScheme.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(url[i])) != kScheme[i]) return std::nullopt;
  }
  std::string rest = url.substr(kScheme.size());
  size_t slash = rest.find('/');
  if (slash == std::string::npos) return std::nullopt;
  const std::string host = rest.substr(0, slash);
  if (!host.empty() && host != "localhost") return std::nullopt;
  std::string encoded = rest.substr(slash);
  encoded = encoded.substr(0, encoded.find_first_of("?#"));
  std::string path;
  for (size_t i = 0; i < encoded.size(); ++i) {
    int high = -1, low = -1;
    if (encoded[i] == '%' && i + 2 < encoded.size() &&
        (high = hexDigitValue(encoded[i + 1])) >= 0 && (low = hexDigitValue(encoded[i + 2])) >= 0) {
      path += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      path += encoded[i];
    }
  }
  return path;
}

bool is_array(const Json& value) { return value.is_array(); }

bool is_dictionary(const Json& value) { return value.is_object(); }

uint64_t getFileSize(const std::string& path) { return FileSystem::fileSize(path).value_or(0); }

std::chrono::system_clock::time_point getFileCreationDateWithDefaultDate(
    const std::string& path, std::chrono::system_clock::time_point defaultDate) {
  return FileSystem::creationDate(path).value_or(defaultDate);
}

}  // namespace nembra
