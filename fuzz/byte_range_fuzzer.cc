// Reads arbitrary text as a Range header against a file size taken from the first 8 bytes: a
// partial range must lie inside the file.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "service/byte_range.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  uint64_t fileSize = 0;
  std::memcpy(&fileSize, data, 8);
  fileSize %= uint64_t{1} << 50;
  const std::string_view header(reinterpret_cast<const char*>(data) + 8, size - 8);
  auto range = nembra::ByteRange::parse(header, fileSize);
  if (range.kind == nembra::ByteRange::Kind::Partial) {
    if (range.first > range.last || range.last >= fileSize || range.length() > fileSize) {
      std::abort();
    }
  }
  return 0;
}
