// The record of every upload that has started and not yet been confirmed, kept on disk so that
// a later application object with the same token can finish what a killed or crashed process
// left. One small JSON file per upload in "<root>/State/uploads/<application>/", each replaced
// atomically on every change (a reader, or the file after a crash, holds the old or the new
// record, never a mix), plus a lock file that the process working on the upload holds: a second
// process (or a second flow in this one) cannot claim an upload that is in hand, and the kernel
// frees the claim when its holder dies, also by SIGKILL.
//
// Records survive the death of the process, not a power cut: syncing one waits for every write
// the file system has pending (right after a large upload, a second or more, on the main queue),
// and a record lost with the machine costs only an upload that is not restarted by itself; the
// file is never touched.
//
// Threading: every member is safe from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "nembra/error.h"
#include "nembra/json.h"
#include "platform/files/file_lock.h"
#include "platform/files/file_system.h"

namespace nembra {

struct UploadJournalEntry {
  enum class Stage {
    RequestingUrl,  // nothing the service gave is known yet
    Transferring,   // the storage form is known; the file may be on its way
    Transferred,    // storage has the file; the confirm has not been answered
  };

  std::string id;
  int type = 0;
  std::string path;
  Json data = Json::object();
  Stage stage = Stage::RequestingUrl;
  std::string mediaToken;
  std::string streamToken;
  std::string uploadUrl;
  Json fields = Json::object();
  // The file as it was when the upload started; a file that differs later changed under it.
  uint64_t fileSize = 0;
  int64_t fileModifiedNs = 0;
  int64_t createdUnix = 0;

  Json toJson() const;
  // A Parse error naming the first field that is missing or of the wrong kind.
  static OptionalError fromJson(const Json& json, UploadJournalEntry& entry);
  static const char* stageName(Stage stage);
};

class UploadJournal {
 public:
  // Keeps its files in |directory|, created when first written.
  explicit UploadJournal(std::string directory);

  // "<root>/State/uploads/<application>": the token itself when it is a safe file name, else
  // "x" and its bytes in hex.
  static std::string directoryFor(const FileSystem& fs, const std::string& applicationToken);

  const std::string& directory() const { return directory_; }

  // A new identifier, unique across processes and restarts.
  std::string newId();
  // Claims |id| for this process: the lock, or nothing when another holder has it.
  std::unique_ptr<FileLock> claim(const std::string& id, OptionalError* error = nullptr);

  // Writes |entry| in place of its previous record.
  OptionalError write(const UploadJournalEntry& entry);
  // Forgets |id|. A missing record is not an error.
  OptionalError remove(const std::string& id);
  // Every record, oldest first. A record that cannot be read is moved aside to
  // "<id>.json.corrupt" (nothing of it is lost) and reported in |problems|.
  std::vector<UploadJournalEntry> load(std::vector<std::string>* problems = nullptr);

 private:
  std::string recordPath(const std::string& id) const;

  const std::string directory_;
  std::mutex mutex_;
  uint64_t counter_ = 0;  // guarded by mutex_
};

}  // namespace nembra
