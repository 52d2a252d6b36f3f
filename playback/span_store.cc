#include "playback/span_store.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>

namespace nembra {

namespace fs = std::filesystem;

namespace {

constexpr const char* kDirectoryPrefix = ".nembra-loader-";

// Removes sibling store directories whose process is gone (a player killed mid-download).
void removeAbandoned(const fs::path& parent) {
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(parent, ec)) {
    std::string name = entry.path().filename().string();
    if (name.rfind(kDirectoryPrefix, 0) != 0) continue;
    pid_t pid = static_cast<pid_t>(std::atol(name.c_str() + std::strlen(kDirectoryPrefix)));
    if (pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM)) continue;
    std::error_code ignored;
    fs::remove_all(entry.path(), ignored);
  }
}

Error fileError(const std::string& what, const std::string& path) {
  return Error::file(what + " " + path + ": " + std::strerror(errno), errno);
}

}  // namespace

struct SpanStore::SpanFile {
  ~SpanFile() {
    if (fd >= 0) ::close(fd);
  }
  uint64_t offset = 0;
  std::string path;
  int fd = -1;
  uint64_t length = 0;  // guarded by the store's mutex
  bool committed = false;
};

std::unique_ptr<SpanStore> SpanStore::create(const std::string& parentDirectory,
                                             OptionalError& error) {
  std::error_code ec;
  fs::create_directories(parentDirectory, ec);
  removeAbandoned(parentDirectory);
  std::random_device random;
  std::string directory =
      (fs::path(parentDirectory) /
       (kDirectoryPrefix + std::to_string(::getpid()) + "-" + std::to_string(random())))
          .string();
  if (!fs::create_directory(directory, ec)) {
    error = Error::file("cannot create " + directory + ": " + ec.message(), ec.value());
    return nullptr;
  }
  return std::unique_ptr<SpanStore>(new SpanStore(directory));
}

SpanStore::SpanStore(std::string directory) : directory_(std::move(directory)) {}

SpanStore::~SpanStore() {
  {
    std::lock_guard lock(mutex_);
    spans_.clear();
  }
  std::error_code ec;
  fs::remove_all(directory_, ec);
}

SpanStore::SpanId SpanStore::begin(uint64_t offset, OptionalError& error) {
  std::lock_guard lock(mutex_);
  SpanId id = nextSpan_++;
  auto file = std::make_shared<SpanFile>();
  file->offset = offset;
  file->path = directory_ + "/" + std::to_string(offset) + "-" + std::to_string(id) + ".span";
  file->fd = ::open(file->path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (file->fd < 0) {
    error = fileError("cannot create", file->path);
    return 0;
  }
  spans_.emplace(id, std::move(file));
  return id;
}

std::shared_ptr<SpanStore::SpanFile> SpanStore::find(SpanId span) const {
  auto found = spans_.find(span);
  return found == spans_.end() ? nullptr : found->second;
}

bool SpanStore::append(SpanId span, std::span<const uint8_t> bytes, OptionalError& error) {
  std::shared_ptr<SpanFile> file;
  uint64_t at = 0;
  {
    std::lock_guard lock(mutex_);
    file = find(span);
    if (!file) {
      error = Error::internal("no such span");
      return false;
    }
    at = file->length;
  }
  size_t written = 0;
  while (written < bytes.size()) {
    ssize_t n = ::pwrite(file->fd, bytes.data() + written, bytes.size() - written,
                         static_cast<off_t>(at + written));
    if (n < 0) {
      if (errno == EINTR) continue;
      error = fileError("cannot write", file->path);
      return false;
    }
    written += static_cast<size_t>(n);
  }
  // Published only once written: a reader never sees bytes that are not on disk yet.
  std::lock_guard lock(mutex_);
  file->length = at + written;
  return true;
}

uint64_t SpanStore::length(SpanId span) const {
  std::lock_guard lock(mutex_);
  auto file = find(span);
  return file ? file->length : 0;
}

std::string SpanStore::pathOf(SpanId span) const {
  std::lock_guard lock(mutex_);
  auto file = find(span);
  return file ? file->path : std::string();
}

void SpanStore::commit(SpanId span) {
  std::lock_guard lock(mutex_);
  auto file = find(span);
  if (!file) return;
  if (file->length == 0) {
    ::unlink(file->path.c_str());
    spans_.erase(span);
    return;
  }
  file->committed = true;
}

void SpanStore::discard(SpanId span) {
  std::lock_guard lock(mutex_);
  if (auto file = find(span)) ::unlink(file->path.c_str());
  spans_.erase(span);
}

int64_t SpanStore::readAt(uint64_t position, uint8_t* buffer, size_t size) const {
  std::shared_ptr<SpanFile> best;
  uint64_t available = 0;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [id, file] : spans_) {
      if (file->offset <= position && position < file->offset + file->length) {
        uint64_t here = file->offset + file->length - position;
        if (here > available) {
          available = here;
          best = file;
        }
      }
    }
  }
  if (!best) return 0;
  size_t wanted = static_cast<size_t>(std::min<uint64_t>(size, available));
  ssize_t n;
  do {
    n = ::pread(best->fd, buffer, wanted, static_cast<off_t>(position - best->offset));
  } while (n < 0 && errno == EINTR);
  return n < 0 ? -1 : n;
}

std::optional<uint64_t> SpanStore::nextSpanStart(uint64_t position) const {
  std::lock_guard lock(mutex_);
  std::optional<uint64_t> next;
  for (const auto& [id, file] : spans_) {
    if (file->offset > position && (!next || file->offset < *next)) next = file->offset;
  }
  return next;
}

std::vector<LoaderRange> SpanStore::ranges() const {
  std::lock_guard lock(mutex_);
  std::vector<LoaderRange> result;
  for (const auto& [id, file] : spans_) {
    if (file->committed) result.push_back({file->offset, file->length});
  }
  return result;
}

std::vector<uint8_t> SpanStore::bytesOf(const LoaderRange& range) const {
  std::vector<uint8_t> bytes(range.length);
  uint64_t done = 0;
  while (done < range.length) {
    int64_t n = readAt(range.location + done, bytes.data() + done, range.length - done);
    if (n <= 0) break;
    done += static_cast<uint64_t>(n);
  }
  bytes.resize(done);
  return bytes;
}

std::optional<std::string> SpanStore::concatenate(uint64_t fullLength, OptionalError& error) {
  std::vector<std::pair<LoaderRange, std::shared_ptr<SpanFile>>> committed;
  std::string target;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [id, file] : spans_) {
      if (file->committed) committed.push_back({{file->offset, file->length}, file});
    }
    target = directory_ + "/whole-" + std::to_string(++assembled_) + ".mp4";
  }
  std::vector<LoaderRange> keys;
  for (const auto& entry : committed) keys.push_back(entry.first);
  auto plan = NembraAssetLoaderHelpers::concatPlan(keys, fullLength);
  if (!plan) return std::nullopt;
  auto fileOf = [&](const LoaderRange& range) {
    for (const auto& entry : committed) {
      if (entry.first == range) return entry.second;
    }
    return std::shared_ptr<SpanFile>();
  };

  // One span from 0 holding exactly the file: a second name for it, no copy.
  if (plan->size() == 1 && plan->front().from == 0 && plan->front().range.length == fullLength) {
    if (::link(fileOf(plan->front().range)->path.c_str(), target.c_str()) == 0) return target;
  }
  int out = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (out < 0) {
    error = fileError("cannot create", target);
    return std::nullopt;
  }
  uint64_t written = 0;
  for (const auto& piece : *plan) {
    auto file = fileOf(piece.range);
    off_t in = static_cast<off_t>(piece.from);
    uint64_t left = piece.length;
    while (left > 0) {
      ssize_t n = ::copy_file_range(file->fd, &in, out, nullptr, left, 0);
      if (n <= 0) {
        if (n < 0 && errno == EINTR) continue;
        error = fileError("cannot copy into", target);
        ::close(out);
        ::unlink(target.c_str());
        return std::nullopt;
      }
      left -= static_cast<uint64_t>(n);
      written += static_cast<uint64_t>(n);
    }
  }
  ::close(out);
  if (written != fullLength) {
    error = Error::internal("dataToSave.length == fullLength");
    ::unlink(target.c_str());
    return std::nullopt;
  }
  return target;
}

size_t SpanStore::spanCount() const {
  std::lock_guard lock(mutex_);
  return nextSpan_ - 1;
}

}  // namespace nembra
