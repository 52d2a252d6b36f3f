#include "api/upload_journal.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>

#include "api/media_token.h"

namespace nembra {

namespace {

constexpr const char* kRecordSuffix = ".json";

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Identifiers become file names: letters, digits and '-' only.
bool isValidId(const std::string& id) {
  if (id.empty() || id.size() > 64) return false;
  return std::all_of(id.begin(), id.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || c == '-';
  });
}

const char* kStageNames[] = {"requesting-url", "transferring", "transferred"};

}  // namespace

const char* UploadJournalEntry::stageName(Stage stage) {
  return kStageNames[static_cast<int>(stage)];
}

Json UploadJournalEntry::toJson() const {
  Json json;
  json["id"] = id;
  json["type"] = type;
  json["path"] = path;
  json["data"] = data;
  json["stage"] = stageName(stage);
  json["media_token"] = mediaToken;
  json["stream_token"] = streamToken;
  json["upload_url"] = uploadUrl;
  json["fields"] = fields;
  json["file_size"] = fileSize;
  json["file_modified_ns"] = fileModifiedNs;
  json["created"] = createdUnix;
  return json;
}

OptionalError UploadJournalEntry::fromJson(const Json& json, UploadJournalEntry& entry) {
  if (!json.is_object()) return Error::parse("the upload record is not a JSON object");
  UploadJournalEntry read;
  auto text = [&](const char* key, std::string& out) -> OptionalError {
    auto found = json.find(key);
    if (found == json.end() || !found->is_string()) {
      return Error::parse(std::string("the upload record has no \"") + key + "\" text");
    }
    out = found->get<std::string>();
    return std::nullopt;
  };
  auto integer = [&](const char* key, auto& out) -> OptionalError {
    auto found = json.find(key);
    if (found == json.end() || !found->is_number_integer()) {
      return Error::parse(std::string("the upload record has no \"") + key + "\" number");
    }
    out = found->get<std::remove_reference_t<decltype(out)>>();
    return std::nullopt;
  };
  std::string stage;
  for (auto error :
       {text("id", read.id), integer("type", read.type), text("path", read.path),
        text("stage", stage), text("media_token", read.mediaToken),
        text("stream_token", read.streamToken), text("upload_url", read.uploadUrl),
        integer("file_size", read.fileSize), integer("file_modified_ns", read.fileModifiedNs),
        integer("created", read.createdUnix)}) {
    if (error) return error;
  }
  if (!isValidId(read.id))
    return Error::parse("the upload record's id \"" + read.id + "\" is invalid");
  auto stageIndex = std::find_if(std::begin(kStageNames), std::end(kStageNames),
                                 [&](const char* name) { return stage == name; });
  if (stageIndex == std::end(kStageNames)) {
    return Error::parse("the upload record's stage \"" + stage + "\" is unknown");
  }
  read.stage = static_cast<Stage>(stageIndex - std::begin(kStageNames));
  auto data = json.find("data");
  read.data = data != json.end() && data->is_object() ? *data : Json::object();
  auto fields = json.find("fields");
  read.fields = fields != json.end() && fields->is_object() ? *fields : Json::object();
  if (read.stage != Stage::RequestingUrl && read.mediaToken.empty()) {
    return Error::parse("the upload record is past its upload URL but has no media token");
  }
  if (read.stage == Stage::Transferring && read.uploadUrl.empty()) {
    return Error::parse("the upload record is transferring but has no storage URL");
  }
  entry = std::move(read);
  return std::nullopt;
}

UploadJournal::UploadJournal(std::string directory) : directory_(std::move(directory)) {}

std::string UploadJournal::directoryFor(const FileSystem& fs, const std::string& applicationToken) {
  std::string name;
  if (MediaToken::isSafe(applicationToken)) {
    name = applicationToken;
  } else {
    name = "x";
    for (unsigned char c : applicationToken) {
      char hex[3];
      std::snprintf(hex, sizeof(hex), "%02x", c);
      name += hex;
    }
  }
  return fs.root() + "/State/uploads/" + name;
}

std::string UploadJournal::newId() {
  uint64_t counter;
  {
    std::lock_guard lock(mutex_);
    counter = ++counter_;
  }
  auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                 std::chrono::system_clock::now().time_since_epoch())
                 .count();
  thread_local std::mt19937 random{std::random_device{}()};
  char id[64];
  // Time first, so records list oldest first; pid, counter and a random part keep ids apart.
  std::snprintf(id, sizeof(id), "%013lld-%d-%llu-%06x", static_cast<long long>(now),
                static_cast<int>(::getpid()), static_cast<unsigned long long>(counter),
                static_cast<unsigned>(random() & 0xFFFFFF));
  return id;
}

std::unique_ptr<FileLock> UploadJournal::claim(const std::string& id, OptionalError* error) {
  if (!isValidId(id)) {
    if (error) *error = Error::invalidArgument("\"" + id + "\" is not an upload record id");
    return nullptr;
  }
  if (auto created = FileSystem::createDirectories(directory_)) {
    if (error) *error = created;
    return nullptr;
  }
  return FileLock::tryAcquire(directory_ + "/" + id + ".lock", error);
}

std::string UploadJournal::recordPath(const std::string& id) const {
  return directory_ + "/" + id + kRecordSuffix;
}

OptionalError UploadJournal::write(const UploadJournalEntry& entry) {
  if (!isValidId(entry.id)) {
    return Error::invalidArgument("\"" + entry.id + "\" is not an upload record id");
  }
  if (auto error = FileSystem::createDirectories(directory_)) return error;
  return FileSystem::writeFileAtomically(recordPath(entry.id), entry.toJson().dump(),
                                         FileSystem::Durability::ProcessSafe);
}

OptionalError UploadJournal::remove(const std::string& id) {
  if (!isValidId(id)) return Error::invalidArgument("\"" + id + "\" is not an upload record id");
  if (!FileSystem::fileExists(recordPath(id))) return std::nullopt;
  return FileSystem::removeItem(recordPath(id));
}

std::vector<UploadJournalEntry> UploadJournal::load(std::vector<std::string>* problems) {
  std::vector<std::string> names;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(directory_, ec), end; !ec && it != end;
       it.increment(ec)) {
    std::string name = it->path().filename().string();
    if (endsWith(name, kRecordSuffix)) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  std::vector<UploadJournalEntry> entries;
  for (const std::string& name : names) {
    const std::string path = directory_ + "/" + name;
    OptionalError error;
    auto text = FileSystem::readFile(path, &error);
    if (!text) {
      // Gone since the listing (finished by its owner) is no problem; anything else is.
      if (FileSystem::fileExists(path) && problems) problems->push_back(error->message);
      continue;
    }
    UploadJournalEntry entry;
    Json json = Json::parse(*text, nullptr, false);
    error = json.is_discarded() ? Error::parse("the upload record is not JSON")
                                : UploadJournalEntry::fromJson(json, entry);
    if (!error && name != entry.id + kRecordSuffix) {
      error = Error::parse("the upload record's id does not match its file name");
    }
    if (error) {
      std::string aside = path + ".corrupt";
      FileSystem::removeItem(aside);
      FileSystem::moveItem(path, aside);
      if (problems) problems->push_back(path + ": " + error->message + " (moved to " + aside + ")");
      continue;
    }
    entries.push_back(std::move(entry));
  }
  return entries;
}

}  // namespace nembra
