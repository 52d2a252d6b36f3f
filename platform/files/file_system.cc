#include "platform/files/file_system.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <vector>

namespace nembra {

namespace fs = std::filesystem;

namespace {

Error fileError(const std::string& what, int code) {
  return Error::file(what + ": " + std::strerror(code), code);
}

Error fileError(const std::string& what, const std::error_code& ec) {
  return Error::file(what + ": " + ec.message(), ec.value());
}

void store(OptionalError* out, OptionalError error) {
  if (out) *out = std::move(error);
}

std::string envValue(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::string homeDirectory() {
  std::string home = envValue("HOME");
  if (!home.empty()) return home;
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
      found->pw_dir) {
    return found->pw_dir;
  }
  return "";
}

// A name for the temporary file that no other writer in this or another process picks.
std::string temporaryName(const fs::path& target) {
  static std::atomic<unsigned> counter{0};
  return (target.parent_path() / ("." + target.filename().string() + ".tmp-" +
                                  std::to_string(getpid()) + "-" + std::to_string(++counter)))
      .string();
}

bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// A replaced file keeps its permissions; a new one is private to the user, since preferences
// and logs may hold tokens.
mode_t modeFor(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0600;
}

void syncDirectory(const fs::path& dir) {
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  // Some file systems refuse to sync a directory; the rename is done either way.
  ::fsync(fd);
  ::close(fd);
}

// Writes and syncs |contents| into a file that has no name until it is complete, then links it
// under a temporary name. A crash before the link leaves nothing on disk. Returns the
// temporary name, or nothing when the file system cannot do this (the caller falls back).
std::optional<std::string> writeUnnamed(const fs::path& target, std::string_view contents,
                                        mode_t mode, bool sync, OptionalError& error) {
  fs::path dir = target.parent_path();
  int fd = ::open(dir.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, mode);
  if (fd < 0) {
    if (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL) return std::nullopt;
    error = fileError("cannot create a temporary file in " + dir.string(), errno);
    return std::nullopt;
  }
  std::optional<std::string> name;
  if (::fchmod(fd, mode) != 0 || !writeAll(fd, contents) || (sync && ::fsync(fd) != 0)) {
    error = fileError("cannot write " + target.string(), errno);
  } else {
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    for (int attempt = 0; attempt < 8 && !name; ++attempt) {
      std::string candidate = temporaryName(target);
      if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, candidate.c_str(), AT_SYMLINK_FOLLOW) == 0) {
        name = candidate;
      } else if (errno != EEXIST) {
        break;  // no /proc, or a file system without links: the caller falls back
      }
    }
  }
  ::close(fd);
  return name;
}

// The portable way: a named temporary file from the start. Only a crash while writing can
// leave it behind.
std::optional<std::string> writeNamed(const fs::path& target, std::string_view contents,
                                      mode_t mode, bool sync, OptionalError& error) {
  std::string name = temporaryName(target) + "-XXXXXX";
  int fd = ::mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) {
    error = fileError("cannot create a temporary file in " + target.parent_path().string(), errno);
    return std::nullopt;
  }
  bool ok = ::fchmod(fd, mode) == 0 && writeAll(fd, contents) && (!sync || ::fsync(fd) == 0);
  int savedErrno = errno;
  ::close(fd);
  if (!ok) {
    ::unlink(name.c_str());
    error = fileError("cannot write " + target.string(), savedErrno);
    return std::nullopt;
  }
  return name;
}

}  // namespace

FileSystem::FileSystem() : root_(defaultRoot()) {}

FileSystem::FileSystem(std::string root) : root_(std::move(root)) {}

FileSystem& FileSystem::shared() {
  static FileSystem instance;
  return instance;
}

std::string FileSystem::defaultRoot() {
  std::string home = envValue("NEMBRA_HOME");
  if (!home.empty()) return home;
  // A relative XDG_DATA_HOME is invalid and is ignored, as the base-directory rules ask.
  std::string data = envValue("XDG_DATA_HOME");
  if (!data.empty() && data.front() == '/') return data + "/nembra";
  std::string user = homeDirectory();
  if (!user.empty()) return user + "/.local/share/nembra";
  // No home at all (a daemon without a passwd entry): a per-user directory that still works.
  std::error_code ec;
  fs::path temporary = fs::temp_directory_path(ec);
  if (ec) temporary = "/tmp";
  return (temporary / ("nembra-" + std::to_string(getuid()))).string();
}

std::string FileSystem::root() const {
  std::lock_guard lock(mutex_);
  return root_;
}

void FileSystem::setRoot(std::string root) {
  std::lock_guard lock(mutex_);
  root_ = std::move(root);
}

std::string FileSystem::subdirectory(const char* name, OptionalError* error) const {
  std::string path = root() + "/" + name;
  store(error, createDirectories(path));
  return path;
}

std::string FileSystem::documentsDirectory(OptionalError* error) const {
  return subdirectory("Documents", error);
}

std::string FileSystem::temporaryDirectory(OptionalError* error) const {
  return subdirectory("tmp", error);
}

std::optional<std::string> FileSystem::containerForAppGroup(const std::string& group,
                                                            OptionalError* error) const {
  if (group.empty() || group == "." || group == ".." ||
      group.find_first_of(std::string_view("/\0", 2)) != std::string::npos) {
    store(error, Error::invalidArgument("invalid application group name \"" + group + "\""));
    return std::nullopt;
  }
  std::string path = root() + "/AppGroups/" + group;
  store(error, createDirectories(path));
  return path;
}

OptionalError FileSystem::createDirectories(const std::string& path) {
  std::error_code ec;
  fs::create_directories(path, ec);
  if (ec) return fileError("cannot create directory " + path, ec);
  if (!fs::is_directory(path, ec)) return fileError("cannot create directory " + path, ENOTDIR);
  return std::nullopt;
}

OptionalError FileSystem::copyItem(const std::string& from, const std::string& to) {
  std::error_code ec;
  const std::string what = "cannot copy " + from + " to " + to;
  if (!fs::exists(from, ec)) return fileError(what, ENOENT);
  if (fs::exists(fs::symlink_status(to, ec))) return fileError(what, EEXIST);
  fs::copy(from, to, fs::copy_options::recursive, ec);
  if (ec) {
    // Whatever part was written is ours: |to| did not exist before.
    std::error_code ignored;
    fs::remove_all(to, ignored);
    return fileError(what, ec);
  }
  return std::nullopt;
}

OptionalError FileSystem::moveItem(const std::string& from, const std::string& to) {
  const std::string what = "cannot move " + from + " to " + to;
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
    return std::nullopt;
  }
  int code = errno;
  if (code == EINVAL) {
    // The file system cannot refuse to replace; check first instead.
    std::error_code ec;
    if (fs::exists(fs::symlink_status(to, ec))) return fileError(what, EEXIST);
    if (::rename(from.c_str(), to.c_str()) == 0) return std::nullopt;
    code = errno;
  }
  if (code != EXDEV) return fileError(what, code);
  if (auto error = copyItem(from, to)) return error;
  if (auto error = removeItem(from)) {
    return Error::file(
        what + ": copied, but the source could not be removed (" + error->message + ")",
        error->code);
  }
  return std::nullopt;
}

OptionalError FileSystem::removeItem(const std::string& path) {
  std::error_code ec;
  if (!fs::exists(fs::symlink_status(path, ec))) return fileError("cannot remove " + path, ENOENT);
  fs::remove_all(path, ec);
  if (ec) return fileError("cannot remove " + path, ec);
  return std::nullopt;
}

bool FileSystem::fileExists(const std::string& path) {
  std::error_code ec;
  return fs::exists(path, ec);
}

std::optional<uint64_t> FileSystem::fileSize(const std::string& path, OptionalError* error) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    store(error, fileError("cannot read the attributes of " + path, errno));
    return std::nullopt;
  }
  return static_cast<uint64_t>(st.st_size);
}

std::optional<FileSystem::TimePoint> FileSystem::creationDate(const std::string& path,
                                                              OptionalError* error) {
  struct statx stx {};
  if (::statx(AT_FDCWD, path.c_str(), AT_STATX_SYNC_AS_STAT, STATX_BTIME | STATX_MTIME, &stx) !=
      0) {
    store(error, fileError("cannot read the attributes of " + path, errno));
    return std::nullopt;
  }
  // Not every file system records a birth time (tmpfs before 5.x, NFS); the modification time
  // is the best stand-in.
  const statx_timestamp& ts = (stx.stx_mask & STATX_BTIME) ? stx.stx_btime : stx.stx_mtime;
  auto since = std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
  return TimePoint(std::chrono::duration_cast<TimePoint::duration>(since));
}

std::optional<FileSystem::SizeAndCreation> FileSystem::sizeAndCreationDate(const std::string& path,
                                                                           OptionalError* error) {
  struct statx stx {};
  if (::statx(AT_FDCWD, path.c_str(), AT_STATX_SYNC_AS_STAT, STATX_BTIME | STATX_MTIME | STATX_SIZE,
              &stx) != 0) {
    store(error, fileError("cannot read the attributes of " + path, errno));
    return std::nullopt;
  }
  const statx_timestamp& ts = (stx.stx_mask & STATX_BTIME) ? stx.stx_btime : stx.stx_mtime;
  auto since = std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
  return SizeAndCreation{static_cast<uint64_t>(stx.stx_size),
                         TimePoint(std::chrono::duration_cast<TimePoint::duration>(since))};
}

std::optional<std::string> FileSystem::readFile(const std::string& path, OptionalError* error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    store(error, fileError("cannot open " + path, errno));
    return std::nullopt;
  }
  std::string contents;
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof(buffer));
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      int code = errno;
      ::close(fd);
      store(error, fileError("cannot read " + path, code));
      return std::nullopt;
    }
    contents.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return contents;
}

OptionalError FileSystem::writeFileAtomically(const std::string& path, std::string_view contents,
                                              Durability durability) {
  std::error_code ec;
  fs::path target = fs::absolute(fs::path(path), ec);
  if (ec) return fileError("cannot write " + path, ec);
  if (target.filename().empty()) {
    return Error::invalidArgument("cannot write " + path + ": not a file path");
  }
  const mode_t mode = modeFor(target.string());
  OptionalError error;
  const bool sync = durability == Durability::Synced;
  std::optional<std::string> temporary = writeUnnamed(target, contents, mode, sync, error);
  if (!temporary && !error) temporary = writeNamed(target, contents, mode, sync, error);
  if (!temporary) return error;
  if (::rename(temporary->c_str(), target.c_str()) != 0) {
    int code = errno;
    ::unlink(temporary->c_str());
    return fileError("cannot replace " + path, code);
  }
  if (sync) syncDirectory(target.parent_path());
  return std::nullopt;
}

}  // namespace nembra
