// Reads arbitrary bytes as a request head. A head read whole must read the same from any prefix
// that holds it, and one read must match what the parser reports about it.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "service/http_head_parser.h"

using nembra::HttpHeadParser;
using nembra::HttpRequestHead;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  HttpHeadParser parser;
  HttpRequestHead head;
  size_t consumed = 0;
  auto status = parser.parse(input, head, consumed);
  if (status == HttpHeadParser::Status::Failed) {
    int code = parser.errorStatus();
    if (code < 400 || code > 505 || parser.error().empty()) std::abort();
    return 0;
  }
  if (status == HttpHeadParser::Status::NeedMore) {
    if (size >= HttpHeadParser::kMaxHeadBytes + 8) std::abort();  // endless heads are refused
    return 0;
  }
  if (consumed > size || consumed > HttpHeadParser::kMaxHeadBytes + 8) std::abort();
  if (head.method.empty() || head.path.empty() || head.path[0] != '/') std::abort();
  if (head.target.compare(0, head.path.size(), head.path) != 0) std::abort();
  if (head.body == HttpRequestHead::Body::Length && head.contentLength == 0) std::abort();
  if (head.body == HttpRequestHead::Body::Chunked &&
      (head.hasHeader("content-length") || head.minorVersion == 0)) {
    std::abort();
  }
  (void)head.header("host");

  // The same head from exactly its own bytes.
  HttpHeadParser again;
  HttpRequestHead second;
  size_t consumedAgain = 0;
  if (again.parse(input.substr(0, consumed), second, consumedAgain) !=
          HttpHeadParser::Status::Done ||
      consumedAgain != consumed || second.headers != head.headers ||
      second.contentLength != head.contentLength || second.body != head.body) {
    std::abort();
  }
  return 0;
}
