// Feeds arbitrary text line by line to the response head handling, as libcurl does while a head
// streams in: a status line leaves no header behind, a name never holds its colon, and a value
// never starts with a blank nor ends with the line's end.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/http/http_header_line.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  nembra::HttpHeaders headers;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view line =
        end == std::string_view::npos ? text : text.substr(0, end + 1);  // with its LF
    text.remove_prefix(line.size());
    nembra::HttpHeaderLine::apply(line, headers);
    if (line.substr(0, 5) == "HTTP/" && !headers.empty()) std::abort();
  }
  for (const auto& [name, value] : headers) {
    if (name.find(':') != std::string::npos || name.find('\n') != std::string::npos) std::abort();
    if (!value.empty() && (value.front() == ' ' || value.front() == '\t' || value.back() == '\r' ||
                           value.back() == '\n')) {
      std::abort();
    }
  }
  return 0;
}
