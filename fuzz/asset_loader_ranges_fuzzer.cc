// Drives the caching loader's range helpers with arbitrary headers and ranges. The input is
// lines: a Range header value, a Content-Range value, a Content-Length value, then pairs of
// numbers (location length) for stored ranges of a file whose length is the first number.
// Stored ranges hold the file's own bytes, so an assembled file must be exactly the file, and a
// cut of a received piece must lie inside it.
#include <cstdint>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "playback/nembra_asset_loader_helpers.h"

namespace helpers = nembra::NembraAssetLoaderHelpers;

namespace {

// File sizes and offsets as the loader meets them: far below where sums could wrap.
constexpr uint64_t kLargest = uint64_t{1} << 40;
constexpr uint64_t kLargestInMemory = 1 << 10;

uint8_t byteAt(uint64_t offset) { return static_cast<uint8_t>(offset * 131 + (offset >> 8)); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  std::string requestRange, contentRange, contentLength;
  std::getline(in, requestRange);
  std::getline(in, contentRange);
  std::getline(in, contentLength);

  nembra::HttpRequest request;
  request.headers.emplace_back("Range", requestRange);
  nembra::HttpResponse response;
  response.status = contentRange.empty() ? 200 : 206;
  if (!contentRange.empty()) response.headers.emplace_back("Content-Range", contentRange);
  response.headers.emplace_back("Content-Length", contentLength);

  const std::string fromRequest = helpers::rangeFromRequest(request);
  const std::string fromResponse = helpers::rangeFromResponse(response);
  if (helpers::isRangeOfRequestEqualsToRangeOfResponse(fromRequest, fromResponse, false) &&
      fromRequest != fromResponse) {
    std::abort();
  }
  if (!helpers::isRangeOfRequestEqualsToRangeOfResponse(fromRequest, fromRequest, true)) {
    std::abort();
  }
  const uint64_t fullLength = helpers::fullLengthFromResponse(response);
  const uint64_t start = helpers::responseStart(response);

  std::vector<uint64_t> numbers;
  for (uint64_t number = 0; numbers.size() < 64 && in >> number;) numbers.push_back(number);

  // A received piece against a request, with the request's end present or not.
  if (numbers.size() >= 3) {
    const uint64_t pieceStart = start % kLargest, pieceLength = numbers[0] % kLargest;
    const uint64_t requestStart = numbers[1] % kLargest, requestEnd = numbers[2] % kLargest;
    for (bool bounded : {false, true}) {
      auto cut = helpers::subdataFromData(pieceStart, pieceLength, start % kLargest, requestStart,
                                          bounded ? std::optional(requestEnd) : std::nullopt);
      if (!cut) continue;
      if (cut->from > pieceLength || cut->count > pieceLength - cut->from) std::abort();
      if (cut->count > 0 && pieceStart + cut->from < requestStart) std::abort();
      if (bounded && cut->count > 0 && pieceStart + cut->from + cut->count > requestEnd + 1) {
        std::abort();
      }
    }
  }

  // Stored ranges of a file of the first number's length (or the response's full length).
  const uint64_t fileLength = (numbers.empty() ? fullLength : numbers[0]) % (kLargestInMemory + 1);
  std::map<nembra::LoaderRange, std::vector<uint8_t>> stored;
  std::vector<nembra::LoaderRange> ranges;
  for (size_t i = 1; i + 1 < numbers.size(); i += 2) {
    const nembra::LoaderRange range{numbers[i] % (kLargestInMemory + 1),
                                    numbers[i + 1] % (kLargestInMemory + 1)};
    std::vector<uint8_t> bytes(range.length);
    for (uint64_t at = 0; at < range.length; ++at) bytes[at] = byteAt(range.location + at);
    stored.emplace(range, std::move(bytes));
    ranges.push_back(range);
  }
  auto plan = helpers::concatPlan(ranges, fileLength);
  auto file = helpers::concatedDataFromRanges(stored, fileLength);
  if (plan.has_value() != file.has_value()) std::abort();
  if (file) {
    if (file->size() != fileLength) std::abort();
    for (uint64_t at = 0; at < fileLength; ++at) {
      if ((*file)[at] != byteAt(at)) std::abort();
    }
  }
  return 0;
}
