#include "api/aspect_ratio_defaults.h"

#include <mutex>

namespace nembra {

namespace {

struct Values {
  std::optional<AspectRatio> ratio16x9;
  std::optional<AspectRatio> ratio4x3;
  std::optional<AspectRatio> ratio1x1;
};

std::mutex& valuesMutex() {
  static std::mutex mutex;
  return mutex;
}

Values& values() {
  static Values values;
  return values;
}

Values read() {
  std::lock_guard lock(valuesMutex());
  return values();
}

}  // namespace

void AspectRatioDefaults::setUp() {
  Values parsed{AspectRatio::parse("16:9"), AspectRatio::parse("4:3"), AspectRatio::parse("1:1")};
  std::lock_guard lock(valuesMutex());
  values() = parsed;
}

std::optional<AspectRatio> AspectRatioDefaults::defaultRatio() { return read().ratio16x9; }

std::optional<AspectRatio> AspectRatioDefaults::fallbackRatio() { return read().ratio4x3; }

std::optional<AspectRatio> AspectRatioDefaults::ratio16x9() { return read().ratio16x9; }

std::optional<AspectRatio> AspectRatioDefaults::ratio4x3() { return read().ratio4x3; }

std::optional<AspectRatio> AspectRatioDefaults::ratio1x1() { return read().ratio1x1; }

}  // namespace nembra
