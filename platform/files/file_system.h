// Where the SDK keeps its files, and the file operations it needs, with failures returned as
// values. Everything lives under one root directory: documents in root/Documents, temporary
// copies in root/tmp (not $TMPDIR, so one root isolates a whole run, tests included) and the
// shared containers of application groups in root/AppGroups/<group>.
//
// The root is, in order: what setRoot() last set; $NEMBRA_HOME; $XDG_DATA_HOME/nembra;
// ~/.local/share/nembra.
//
// Threading: every member is safe from any thread. setRoot() affects later calls only; a path
// already handed out stays where it was.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "nembra/error.h"

namespace nembra {

class FileSystem {
 public:
  using TimePoint = std::chrono::system_clock::time_point;

  // Rooted at defaultRoot().
  FileSystem();
  explicit FileSystem(std::string root);

  // The process-wide instance, rooted at defaultRoot() when first used.
  static FileSystem& shared();
  // The root the environment asks for (see the top of this file). Never empty.
  static std::string defaultRoot();

  std::string root() const;
  void setRoot(std::string root);

  // These directories are created, with their parents, when asked for. One that cannot be
  // created is still returned and the failure is stored in |error|: the caller's first file
  // operation in it fails with its own message anyway.
  std::string documentsDirectory(OptionalError* error = nullptr) const;
  std::string temporaryDirectory(OptionalError* error = nullptr) const;
  // Absent, with an InvalidArgument error, when |group| is not a single path component.
  std::optional<std::string> containerForAppGroup(const std::string& group,
                                                  OptionalError* error = nullptr) const;

  // Creates |path| and its missing parents; an existing directory is success.
  static OptionalError createDirectories(const std::string& path);
  // Copies a file or a directory tree. Fails when |to| exists, and then leaves it untouched.
  static OptionalError copyItem(const std::string& from, const std::string& to);
  // Renames; across file systems copies, then removes the source. Fails when |to| exists.
  static OptionalError moveItem(const std::string& from, const std::string& to);
  // Removes a file, a symbolic link or a directory tree. A missing path is an error.
  static OptionalError removeItem(const std::string& path);
  static bool fileExists(const std::string& path);
  // The size in bytes of the file (a symbolic link is followed).
  static std::optional<uint64_t> fileSize(const std::string& path, OptionalError* error = nullptr);
  // The birth time where the file system records one, else the last modification time.
  static std::optional<TimePoint> creationDate(const std::string& path,
                                               OptionalError* error = nullptr);
  // Size and creationDate in one look at the file, for callers that go through many files.
  struct SizeAndCreation {
    uint64_t size = 0;
    TimePoint created;
  };
  static std::optional<SizeAndCreation> sizeAndCreationDate(const std::string& path,
                                                            OptionalError* error = nullptr);
  static std::optional<std::string> readFile(const std::string& path,
                                             OptionalError* error = nullptr);
  enum class Durability {
    // Survives a power loss: the data and the directory are synced before this returns.
    Synced,
    // Survives the death of the process only. A sync waits for every write of the file system
    // before it (a large file just written by anyone costs a second), which a record whose loss
    // merely repeats some work need not pay.
    ProcessSafe,
  };
  // Replaces |path| with |contents| so that a reader, or the file after a crash, holds either
  // the old or the new contents, never a mix: the data is written to an unnamed file in the
  // same directory, then renamed over |path|. On failure |path| is unchanged and nothing is
  // left behind.
  static OptionalError writeFileAtomically(const std::string& path, std::string_view contents,
                                           Durability durability = Durability::Synced);

 private:
  std::string subdirectory(const char* name, OptionalError* error) const;

  mutable std::mutex mutex_;
  std::string root_;  // guarded by mutex_
};

}  // namespace nembra
