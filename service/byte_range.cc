#include "service/byte_range.h"

#include <charconv>

#include "service/http_text.h"

namespace nembra {
namespace {

bool readNumber(std::string_view text, uint64_t& value) {
  if (text.empty()) return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return ec == std::errc() && end == text.data() + text.size();
}

}  // namespace

ByteRange ByteRange::parse(std::string_view header, uint64_t size) {
  ByteRange range;
  header = trimHttpSpace(header);
  if (header.empty()) return range;
  size_t equals = header.find('=');
  if (equals == std::string_view::npos) return {Kind::Unsatisfiable};
  std::string_view unit = trimHttpSpace(header.substr(0, equals));
  bool bytes = unit.size() == 5;
  for (size_t i = 0; bytes && i < 5; ++i) bytes = (unit[i] | 0x20) == "bytes"[i];
  if (!bytes) return range;  // a unit we do not serve is ignored
  std::string_view spec = trimHttpSpace(header.substr(equals + 1));
  if (spec.find(',') != std::string_view::npos) return range;
  size_t dash = spec.find('-');
  if (dash == std::string_view::npos) return {Kind::Unsatisfiable};
  std::string_view start = trimHttpSpace(spec.substr(0, dash));
  std::string_view end = trimHttpSpace(spec.substr(dash + 1));

  uint64_t a = 0, b = 0;
  if (start.empty()) {
    // The last |b| bytes.
    if (!readNumber(end, b) || b == 0 || size == 0) return {Kind::Unsatisfiable};
    range.kind = Kind::Partial;
    range.first = b >= size ? 0 : size - b;
    range.last = size - 1;
    return range;
  }
  if (!readNumber(start, a) || a >= size) return {Kind::Unsatisfiable};
  if (end.empty()) {
    b = size - 1;
  } else if (!readNumber(end, b) || b < a) {
    return {Kind::Unsatisfiable};
  }
  range.kind = Kind::Partial;
  range.first = a;
  range.last = b >= size ? size - 1 : b;
  return range;
}

}  // namespace nembra
