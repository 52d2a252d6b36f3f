#include "playback/nembra_asset_loader_helpers.h"

#include <algorithm>
#include <cassert>
#include <charconv>

namespace nembra::NembraAssetLoaderHelpers {

namespace {

uint64_t parseNumber(std::string_view text) {
  uint64_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

}  // namespace

std::string urlWithScheme(const std::string& url, const std::string& scheme) {
  size_t colon = url.find("://");
  if (colon == std::string::npos) return url;
  return scheme + url.substr(colon);
}

std::string schemeOfUrl(const std::string& url) {
  size_t colon = url.find("://");
  return colon == std::string::npos ? std::string() : url.substr(0, colon);
}

std::string rangeFromRequest(const HttpRequest& request) {
  for (const auto& [name, value] : request.headers) {
    if (name.size() == 5 && (name == "Range" || name == "range")) {
      size_t equals = value.rfind('=');
      return equals == std::string::npos ? value : value.substr(equals + 1);
    }
  }
  return {};
}

std::string rangeFromResponse(const HttpResponse& response) {
  std::string contentRange = response.header("Content-Range").value_or("");
  std::string first = contentRange.substr(0, contentRange.find('/'));
  size_t blank = first.rfind(' ');
  return blank == std::string::npos ? first : first.substr(blank + 1);
}

bool isRangeOfRequestEqualsToRangeOfResponse(const std::string& requestRange,
                                             const std::string& responseRange,
                                             bool requestToTheEnd) {
  if (requestToTheEnd) return responseRange.rfind(requestRange, 0) == 0;
  return requestRange == responseRange;
}

uint64_t fullLengthFromResponse(const HttpResponse& response) {
  if (auto contentRange = response.header("Content-Range")) {
    size_t slash = contentRange->find('/');
    return slash == std::string::npos
               ? 0
               : parseNumber(std::string_view(*contentRange).substr(slash + 1));
  }
  if (response.status == 200) {
    if (auto length = response.header("Content-Length")) return parseNumber(*length);
  }
  return 0;
}

uint64_t responseStart(const HttpResponse& response) {
  std::string range = rangeFromResponse(response);
  return range.empty() ? 0 : parseNumber(range);
}

std::optional<Cut> subdataFromData(uint64_t pieceStart, uint64_t pieceLength,
                                   uint64_t responseStart, uint64_t requestStart,
                                   std::optional<uint64_t> requestEnd) {
  if (responseStart > requestStart || pieceLength == 0) return std::nullopt;
  const uint64_t pieceEnd = pieceStart + pieceLength;  // exclusive
  // An empty request (its end just before its start) wants nothing, and one to the last
  // possible byte has no end past it.
  const uint64_t wantedEnd = requestEnd && *requestEnd < UINT64_MAX ? *requestEnd + 1 : UINT64_MAX;
  const uint64_t first = std::max(pieceStart, requestStart);
  const uint64_t last = std::min(pieceEnd, wantedEnd);
  if (last <= first) return Cut{};
  return Cut{first - pieceStart, last - first};
}

std::optional<std::vector<ConcatPiece>> concatPlan(const std::vector<LoaderRange>& ranges,
                                                   uint64_t fullLength) {
  std::vector<ConcatPiece> plan;
  uint64_t covered = 0;
  while (covered != fullLength) {
    const LoaderRange* best = nullptr;
    for (const LoaderRange& range : ranges) {
      if (range.location <= covered && (!best || range.end() > best->end())) best = &range;
    }
    if (!best || best->end() <= covered) return std::nullopt;
    const uint64_t end = std::min(best->end(), fullLength);
    plan.push_back({*best, covered - best->location, end - covered});
    covered = end;
  }
  return plan;
}

std::optional<std::vector<uint8_t>> concatedDataFromRanges(
    const std::map<LoaderRange, std::vector<uint8_t>>& ranges, uint64_t fullLength) {
  std::vector<LoaderRange> keys;
  for (const auto& [range, data] : ranges) keys.push_back(range);
  auto plan = concatPlan(keys, fullLength);
  if (!plan) return std::nullopt;
  std::vector<uint8_t> dataToSave;
  dataToSave.reserve(fullLength);
  for (const ConcatPiece& piece : *plan) {
    const std::vector<uint8_t>& data = ranges.at(piece.range);
    dataToSave.insert(dataToSave.end(), data.begin() + piece.from,
                      data.begin() + piece.from + piece.length);
  }
  assert(dataToSave.size() == fullLength && "dataToSave.length == fullLength");
  return dataToSave;
}

}  // namespace nembra::NembraAssetLoaderHelpers
