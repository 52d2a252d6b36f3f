// The caching loader's header arithmetic and range bookkeeping, as plain functions.
//
// Threading: pure; any thread.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "nembra/http_message.h"

namespace nembra {

// A byte range of the remote file: start offset and length.
struct LoaderRange {
  uint64_t location = 0;
  uint64_t length = 0;
  uint64_t end() const { return location + length; }
  auto operator<=>(const LoaderRange&) const = default;
};

namespace NembraAssetLoaderHelpers {

// The private scheme the loader's asset URLs carry: the loader's class name.
inline constexpr const char* kScheme = "NembraAssetLoaderDelegate";

// |url| with its scheme replaced by |scheme| ("https://h/v.mp4" → "NembraAssetLoaderDelegate://h/
// v.mp4"); |url| as it is when it has none.
std::string urlWithScheme(const std::string& url, const std::string& scheme);
// The scheme of |url| ("" when it has none).
std::string schemeOfUrl(const std::string& url);

// "Range: bytes=100-199" gives "100-199"; "bytes=100-" gives "100-".
std::string rangeFromRequest(const HttpRequest& request);
// "Content-Range: bytes 100-199/5000" gives "100-199".
std::string rangeFromResponse(const HttpResponse& response);
// Asking to the end, the response range must begin with the request's ("100-" against
// "100-4999"); otherwise the two must be equal.
bool isRangeOfRequestEqualsToRangeOfResponse(const std::string& requestRange,
                                             const std::string& responseRange,
                                             bool requestToTheEnd);

// The number after "/" in "Content-Range"; for a 200 without one, the Content-Length; else 0.
uint64_t fullLengthFromResponse(const HttpResponse& response);
// Where the response's body starts in the file: the first number of "Content-Range", 0 without
// one (a plain 200 carries the whole file).
uint64_t responseStart(const HttpResponse& response);

// Which bytes of a received piece a request wants, when the server did not honour the range.
// The piece holds the file's bytes from |pieceStart| for |pieceLength|; the request wants
// |requestStart| to |requestEnd| inclusive (to the end of the file when absent).
struct Cut {
  uint64_t from = 0;   // offset in the piece
  uint64_t count = 0;  // 0: the piece holds nothing wanted (before or after the request)
};
// Absent when the response cannot serve the request at all: it starts after the request's
// start, or it is empty.
std::optional<Cut> subdataFromData(uint64_t pieceStart, uint64_t pieceLength,
                                   uint64_t responseStart, uint64_t requestStart,
                                   std::optional<uint64_t> requestEnd);

// One piece of the assembled file: |length| bytes from |from| inside the stored |range|.
struct ConcatPiece {
  LoaderRange range;
  uint64_t from = 0;
  uint64_t length = 0;
};
// How the stored ranges make the whole file of |fullLength| bytes, walking from 0 and taking at
// each step the range that starts at or before the covered end and ends furthest; absent when
// there is a gap.
std::optional<std::vector<ConcatPiece>> concatPlan(const std::vector<LoaderRange>& ranges,
                                                   uint64_t fullLength);
// The same over ranges held in memory: the whole file's bytes, or absent.
std::optional<std::vector<uint8_t>> concatedDataFromRanges(
    const std::map<LoaderRange, std::vector<uint8_t>>& ranges, uint64_t fullLength);

}  // namespace NembraAssetLoaderHelpers
}  // namespace nembra
