// File and JSON helpers shared by every part of the SDK.
//
// JSON reading rules (what the models are built on): a value is read through its textual form
// — a string as is, a number as its shortest decimal ("5", "2.5"), true as "1" and false as
// "0", an array or object as its JSON text. A key that is missing or "null" (JSON null, or the
// text "null" or "<null>") gives the getter's default. Numeric getters convert a numeric string
// ("7" → 7, reading the leading number as the platform's string scanner does: " 12abc" → 12);
// a boolean is true only when the textual form is exactly "true", so a JSON true ("1") reads
// false — kept as is: the service and every client agree on this.
//
// File helpers work under a FileSystem, FileSystem::shared() unless one is given; failures
// give an absent or zero result and, where noted, a console line (api/console_log.h).
//
// Threading: every operation is safe from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "nembra/error.h"
#include "nembra/json.h"
#include "platform/files/file_system.h"

namespace nembra {

class Utils {
 public:
  using TimePoint = std::chrono::system_clock::time_point;

  static std::string getDocumentsDirectory(FileSystem& fs = FileSystem::shared());
  // The shared container of |appGroup|; absent for a name that cannot be a container.
  static std::optional<std::string> getSharedDirectoryForAppGroup(
      const std::string& appGroup, FileSystem& fs = FileSystem::shared());
  // The container followed by "Library/Caches".
  static std::optional<std::string> getWritableSharedDirectoryForAppGroup(
      const std::string& appGroup, FileSystem& fs = FileSystem::shared());
  // The writable shared directory followed by "com.nembra.screen-recording", created with its
  // parents; absent when it cannot be created.
  static std::optional<std::string> getSharedScreenRecordingDirectoryForAppGroup(
      const std::string& appGroup, FileSystem& fs = FileSystem::shared());

  // Moves |source| into the directory |to| under its own file name. Logs
  // "Unexpected error: <reason>." and returns the error on failure.
  static OptionalError moveFileWithSource(const std::string& source, const std::string& to);
  // Copies |path| into the temporary directory as "<seconds>_<random>.<fileExtension>" and
  // returns the copy's path; logs the outcome either way. Absent on failure.
  static std::optional<std::string> copyFileToTemporaryDirectory(
      const std::string& path, const std::string& fileExtension,
      FileSystem& fs = FileSystem::shared());
  // Delete, ignoring failures. A URL other than a file URL is ignored.
  static void removeFileWithUrl(const std::string& url);
  static void removeFileWithPath(const std::string& path);
  // 0 when the size cannot be read.
  static uint64_t fileSize(const std::string& path);

  // The textual form of a value, as described at the top of this file.
  static std::string textualForm(const Json& value);

  static std::string getStringFromJson(const Json& json, const std::string& key);
  // Absent when missing or null.
  static std::optional<Json> getObjectFromJson(const Json& json, const std::string& key);
  // Absent when missing, null, or not of the asked kind.
  static std::optional<Json> getArrayFromJson(const Json& json, const std::string& key);
  static std::optional<Json> getDictionaryFromJson(const Json& json, const std::string& key);
  // Out-of-range values saturate; a fraction is cut toward zero.
  static int32_t getIntFromJson(const Json& json, const std::string& key);
  static int64_t getLongFromJson(const Json& json, const std::string& key);
  // A value that does not read as a finite number gives 0.0.
  static double getDoubleFromJson(const Json& json, const std::string& key);
  static bool getBoolFromJson(const Json& json, const std::string& key);
  // True when the key holds JSON null or a value whose textual form is "<null>" or "null". A
  // missing key is not null.
  static bool isNsNull(const Json& json, const std::string& key);

  // The file path of a "file://" URL (percent-decoded); absent for any other URL.
  static std::optional<std::string> pathFromFileUrl(const std::string& url);
};

bool is_array(const Json& value);
bool is_dictionary(const Json& value);
// 0 when the size cannot be read.
uint64_t getFileSize(const std::string& path);
std::chrono::system_clock::time_point getFileCreationDateWithDefaultDate(
    const std::string& path, std::chrono::system_clock::time_point defaultDate);

}  // namespace nembra
