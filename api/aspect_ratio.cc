#include "nembra/aspect_ratio.h"

#include <cctype>
#include <charconv>
#include <vector>

namespace nembra {

namespace {

bool isBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// One side of "x:y": an integer with blanks around it and nothing else.
std::optional<int32_t> readSide(const std::string& part) {
  size_t start = 0, end = part.size();
  while (start < end && isBlank(part[start])) ++start;
  while (end > start && isBlank(part[end - 1])) --end;
  const char* first = part.data() + start;
  const char* last = part.data() + end;
  if (first != last && *first == '+') ++first;
  int32_t value = 0;
  auto [ptr, ec] = std::from_chars(first, last, value);
  if (ec != std::errc() || ptr != last || first == last) return std::nullopt;
  return value;
}

}  // namespace

int32_t AspectRatio::gcd(int32_t a, int32_t b) {
  while (b != 0) {
    // The remainder by -1 is 0; computing it would overflow for the smallest integer.
    int32_t remainder = b == -1 ? 0 : a % b;
    a = b;
    b = remainder;
  }
  return a;
}

AspectRatio AspectRatio::of(int32_t x, int32_t y) {
  int64_t g = gcd(x, y);
  if (g == 0) return AspectRatio(0, 0);
  // In 64 bits: dividing the smallest integer by -1 wraps back to itself instead of trapping.
  return AspectRatio(static_cast<int32_t>(x / g), static_cast<int32_t>(y / g));
}

std::optional<AspectRatio> AspectRatio::parse(const std::string& text, OptionalError* error) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    size_t colon = text.find(':', start);
    parts.push_back(text.substr(start, colon - start));
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  if (parts.size() != 2) {
    if (error) *error = Error::invalidArgument("Malformed aspect ratio: " + text);
    return std::nullopt;
  }
  std::optional<int32_t> x = readSide(parts[0]);
  std::optional<int32_t> y = readSide(parts[1]);
  if (!x || !y) {
    const std::string& bad = x ? parts[1] : parts[0];
    if (error) {
      *error = Error::invalidArgument("Malformed aspect ratio: " + text + " \"" + bad +
                                      "\" is not an integer");
    }
    return std::nullopt;
  }
  return of(*x, *y);
}

std::string AspectRatio::toString() const {
  return std::to_string(mX) + " : " + std::to_string(mY);
}

float AspectRatio::toFloat() const {
  return mY < 1 ? 0.0f : static_cast<float>(mX) / static_cast<float>(mY);
}

bool AspectRatio::matches(int32_t width, int32_t height) const { return equals(of(width, height)); }

bool AspectRatio::equals(const std::optional<AspectRatio>& other) const {
  return other && other->mX == mX && other->mY == mY;
}

int AspectRatio::compareTo(const AspectRatio& other) const {
  if (equals(other)) return 0;
  return toFloat() > other.toFloat() ? 1 : -1;
}

AspectRatio AspectRatio::inverse() const { return of(mY, mX); }

}  // namespace nembra
