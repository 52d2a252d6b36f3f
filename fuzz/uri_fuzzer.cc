// Parses arbitrary text as an address; the parts must rebuild without failing.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "streaming/uri.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const nembra::Uri uri = nembra::Uri::Parse(text);
  const std::string rebuilt = uri.ToString();
  size_t pieces = 0;
  for (const auto& segment : uri.GetSegments()) {
    if (segment.empty() || segment.find('/') != std::string::npos) std::abort();
    pieces += segment.size();
  }
  if (pieces > uri.path.size() || rebuilt.size() > size + 16) std::abort();
  return 0;
}
