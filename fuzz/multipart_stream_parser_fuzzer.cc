// Parses arbitrary bytes as a multipart body. The first line is the boundary, the rest the body,
// fed whole and then in pieces of a size the input chooses: the parts and their data must come
// out the same either way.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "service/multipart_stream_parser.h"

using nembra::MultipartPart;
using nembra::MultipartStreamParser;

namespace {

struct Outcome {
  MultipartStreamParser::Status status = MultipartStreamParser::Status::Ok;
  std::vector<std::string> parts;  // name, filename and data of each
};

Outcome parse(const std::string& boundary, std::string_view body, size_t step) {
  Outcome outcome;
  MultipartStreamParser::Callbacks callbacks;
  callbacks.onPartBegin = [&](const MultipartPart& part) {
    outcome.parts.push_back(part.name + "|" + part.filename.value_or("-") + "|" + part.contentType +
                            "|");
    return true;
  };
  callbacks.onPartData = [&](const char* data, size_t size) {
    if (outcome.parts.empty()) std::abort();  // data only inside a part
    outcome.parts.back().append(data, size);
    return true;
  };
  callbacks.onPartEnd = [] { return true; };
  MultipartStreamParser parser(boundary, callbacks);
  for (size_t at = 0; at < body.size() && outcome.status == MultipartStreamParser::Status::Ok;
       at += step) {
    outcome.status = parser.feed(body.data() + at, std::min(step, body.size() - at));
  }
  if (outcome.status == MultipartStreamParser::Status::Ok) outcome.status = parser.finish();
  if (outcome.status == MultipartStreamParser::Status::Malformed && parser.error().empty()) {
    std::abort();
  }
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  size_t newline = input.find('\n');
  if (newline == std::string_view::npos || newline == 0 || newline > 70) return 0;
  std::string boundary(input.substr(0, newline));
  (void)MultipartStreamParser::boundaryFromContentType("multipart/form-data; boundary=" + boundary);
  std::string_view body = input.substr(newline + 1);
  size_t step = body.empty() ? 1 : 1 + static_cast<uint8_t>(body.back()) % 17;
  Outcome whole = parse(boundary, body, body.empty() ? 1 : body.size());
  Outcome pieces = parse(boundary, body, step);
  if (whole.status != pieces.status || whole.parts != pieces.parts) std::abort();
  return 0;
}
