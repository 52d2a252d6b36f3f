// Where the caching loader keeps the bytes it receives: one file per span (a run of the remote
// file's bytes from some offset), in a private directory inside the player's cache directory,
// so a whole video plays at a flat resident size. Spans grow while their download runs and
// are readable at once; a span is committed (becomes one of the stored ranges) when its
// download ends. The whole file, once the committed ranges cover it, is assembled as one file
// in the same directory (hard-linked when a single span holds it), so its owner can rename it
// into the cache atomically.
//
// The directory is removed with the store. A directory left by a process that died (its name
// carries the process id) is removed by the next store created beside it.
//
// Threading: every operation may be called from any thread; they lock internally, and reads
// copy outside the lock.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "nembra/error.h"
#include "playback/nembra_asset_loader_helpers.h"

namespace nembra {

class SpanStore {
 public:
  using SpanId = uint64_t;

  // A fresh directory under |parentDirectory| (created if missing); null with |error| set when
  // it cannot be made.
  static std::unique_ptr<SpanStore> create(const std::string& parentDirectory,
                                           OptionalError& error);
  ~SpanStore();
  SpanStore(const SpanStore&) = delete;
  SpanStore& operator=(const SpanStore&) = delete;

  const std::string& directory() const { return directory_; }

  // A new, empty span starting at |offset|; 0 when its file cannot be created.
  SpanId begin(uint64_t offset, OptionalError& error);
  bool append(SpanId span, std::span<const uint8_t> bytes, OptionalError& error);
  uint64_t length(SpanId span) const;
  std::string pathOf(SpanId span) const;
  // Makes a non-empty span one of the stored ranges; an empty one is dropped.
  void commit(SpanId span);
  void discard(SpanId span);

  // Copies up to |size| bytes at |position| from any span (committed or growing) that holds
  // it; 0 when none does.
  int64_t readAt(uint64_t position, uint8_t* buffer, size_t size) const;
  // The first span start after |position|, if any (where a fetch from |position| may stop).
  std::optional<uint64_t> nextSpanStart(uint64_t position) const;
  // The committed ranges.
  std::vector<LoaderRange> ranges() const;
  // Bytes of the committed range |range|, for tests and small reads.
  std::vector<uint8_t> bytesOf(const LoaderRange& range) const;

  // Assembles the whole file of |fullLength| bytes from the committed ranges; its path, or
  // absent when there is a gap (or, with |error| set, when writing failed).
  std::optional<std::string> concatenate(uint64_t fullLength, OptionalError& error);

  // Spans ever created; for tests.
  size_t spanCount() const;

 private:
  struct SpanFile;
  explicit SpanStore(std::string directory);
  std::shared_ptr<SpanFile> find(SpanId span) const;

  const std::string directory_;
  mutable std::mutex mutex_;
  std::map<SpanId, std::shared_ptr<SpanFile>> spans_;  // guarded by mutex_
  SpanId nextSpan_ = 1;                                // guarded by mutex_
  uint64_t assembled_ = 0;                             // guarded by mutex_
};

}  // namespace nembra
