#include "platform/system/user_defaults.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "platform/files/file_system.h"

namespace nembra {

UserDefaults::UserDefaults(std::string filePath)
    : path_(std::move(filePath)),
      reporter_([](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); }) {}

UserDefaults& UserDefaults::standard() {
  static UserDefaults instance(FileSystem::shared().root() + "/Preferences/defaults.json");
  return instance;
}

void UserDefaults::setReporter(Reporter reporter) {
  std::lock_guard lock(mutex_);
  reporter_ = std::move(reporter);
}

// Called with mutex_ held; the reporter must not call back into this object.
void UserDefaults::report(const std::string& line) {
  if (reporter_) reporter_("UserDefaults: " + line);
}

void UserDefaults::loadLocked() {
  if (loaded_) return;
  loaded_ = true;
  values_ = Json::object();
  OptionalError error;
  std::optional<std::string> text = FileSystem::readFile(path_, &error);
  if (!text) {
    if (error && error->code != ENOENT && error->code != ENOTDIR)
      report(error->message + "; starting with no settings");
    return;
  }
  Json parsed = Json::parse(*text, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_object()) {
    values_ = std::move(parsed);
    return;
  }
  const std::string reason = parsed.is_discarded() ? "not valid JSON" : "not a JSON object";
  const std::string aside = path_ + ".corrupt";
  std::error_code ec;
  std::filesystem::rename(path_, aside, ec);
  if (ec) {
    report(path_ + " is " + reason + " and could not be moved aside (" + ec.message() +
           "); starting with no settings, the next change replaces it");
  } else {
    report(path_ + " is " + reason + "; moved to " + aside + ", starting with no settings");
  }
}

OptionalError UserDefaults::writeLocked() {
  std::filesystem::path file(path_);
  OptionalError error;
  if (file.has_parent_path()) error = FileSystem::createDirectories(file.parent_path().string());
  if (!error)
    error = FileSystem::writeFileAtomically(
        path_, values_.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
  if (error) {
    dirty_ = true;
    report(error->message + "; the change is kept in memory until the next synchronize");
    return error;
  }
  dirty_ = false;
  return std::nullopt;
}

std::optional<Json> UserDefaults::objectForKey(const std::string& key) {
  std::lock_guard lock(mutex_);
  loadLocked();
  auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return *it;
}

std::optional<std::string> UserDefaults::stringForKey(const std::string& key) {
  std::optional<Json> value = objectForKey(key);
  if (!value || !value->is_string()) return std::nullopt;
  return value->get<std::string>();
}

OptionalError UserDefaults::setValue(Json value, const std::string& key) {
  if (value.is_null()) return removeObjectForKey(key);
  std::lock_guard lock(mutex_);
  loadLocked();
  values_[key] = std::move(value);
  return writeLocked();
}

OptionalError UserDefaults::removeObjectForKey(const std::string& key) {
  std::lock_guard lock(mutex_);
  loadLocked();
  if (values_.erase(key) == 0 && !dirty_) return std::nullopt;
  return writeLocked();
}

OptionalError UserDefaults::synchronize() {
  std::lock_guard lock(mutex_);
  if (dirty_) return writeLocked();
  loaded_ = false;
  loadLocked();
  return std::nullopt;
}

}  // namespace nembra
