// A single "Range: bytes=…" request against a file of known size.
#pragma once

#include <cstdint>
#include <string_view>

namespace nembra {

struct ByteRange {
  enum class Kind {
    Whole,          // no range, another unit, or several ranges: the whole file is sent
    Partial,        // first..last (inclusive) is sent with 206
    Unsatisfiable,  // 416: malformed, or starting past the end
  };

  Kind kind = Kind::Whole;
  uint64_t first = 0;
  uint64_t last = 0;  // inclusive

  uint64_t length() const { return last - first + 1; }

  // "bytes=a-b", "bytes=a-", "bytes=-n" against |size| bytes. An end past the file is cut to
  // it; a start past it, a backwards range, an empty suffix or anything unreadable is
  // Unsatisfiable. Several ranges are answered whole rather than as multipart.
  static ByteRange parse(std::string_view header, uint64_t size);
};

}  // namespace nembra
