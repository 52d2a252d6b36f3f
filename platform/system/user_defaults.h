// Persistent settings of the application: a key → JSON value store kept in one JSON file
// (root/Preferences/defaults.json for standard()). Every change is written at once, atomically,
// so a crash never leaves a half-written file and never loses a setting that was reported
// stored.
//
// A file that is not a JSON object is reported, moved aside to "<file>.corrupt" (so nothing the
// user had is lost) and the store starts empty.
//
// Threading: every member is safe from any thread. The reporter runs on the calling thread.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "nembra/error.h"
#include "nembra/json.h"

namespace nembra {

class UserDefaults {
 public:
  using Reporter = std::function<void(const std::string& line)>;

  // The file is read when first needed.
  explicit UserDefaults(std::string filePath);

  // The application's settings, under FileSystem::shared()'s root as it is at first use.
  static UserDefaults& standard();

  const std::string& filePath() const { return path_; }

  std::optional<Json> objectForKey(const std::string& key);
  // Absent when the key is missing or holds something other than a string.
  std::optional<std::string> stringForKey(const std::string& key);
  // Stores |value| under |key| and writes the file; a null value removes the key. On a failed
  // write the value is kept in memory and synchronize() tries again.
  OptionalError setValue(Json value, const std::string& key);
  OptionalError removeObjectForKey(const std::string& key);
  // Writes changes that have not reached the file yet; with none pending, reads the file again
  // so that changes made by another process become visible.
  OptionalError synchronize();

  // Where problems with the file are reported; standard error by default.
  void setReporter(Reporter reporter);

 private:
  void loadLocked();
  OptionalError writeLocked();
  void report(const std::string& line);

  const std::string path_;
  std::mutex mutex_;
  Json values_ = Json::object();  // guarded by mutex_
  bool loaded_ = false;           // guarded by mutex_
  bool dirty_ = false;            // guarded by mutex_: values_ differ from the file
  Reporter reporter_;             // guarded by mutex_
};

}  // namespace nembra
