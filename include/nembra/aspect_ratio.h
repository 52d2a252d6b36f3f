// A width-to-height ratio such as 16 : 9, used for recording resolutions and frame sizes.
//
// Threading: a plain value; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "nembra/error.h"

namespace nembra {

class AspectRatio {
 public:
  // Kept as given, not reduced: AspectRatio(32, 18) is not equal to 16 : 9.
  AspectRatio(int32_t x, int32_t y) : mX(x), mY(y) {}

  // Euclid's remainder loop; the result's sign follows the last non-zero divisor.
  static int32_t gcd(int32_t a, int32_t b);
  // (x, y) reduced by their greatest common divisor; (0, 0) stays 0 : 0.
  static AspectRatio of(int32_t x, int32_t y);
  // "16:9" (blanks around either number allowed). Absent on anything else, with the error
  // "Malformed aspect ratio: <text>" when there are not exactly two parts, or
  // "Malformed aspect ratio: <text> <reason>" when a part is not an integer.
  static std::optional<AspectRatio> parse(const std::string& text, OptionalError* error = nullptr);

  int32_t getX() const { return mX; }
  int32_t getY() const { return mY; }

  std::string toString() const;  // "16 : 9"
  // x / y, or 0 when y is below 1.
  float toFloat() const;
  // Whether width : height reduces to exactly this ratio.
  bool matches(int32_t width, int32_t height) const;
  // Same x and same y; an absent ratio is unequal.
  bool equals(const std::optional<AspectRatio>& other) const;
  // 0 when equal, else 1 when this ratio is wider and -1 otherwise.
  int compareTo(const AspectRatio& other) const;
  AspectRatio inverse() const;

  bool operator==(const AspectRatio& other) const { return equals(other); }

 private:
  int32_t mX;
  int32_t mY;
};

}  // namespace nembra
