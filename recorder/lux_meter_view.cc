#include "recorder/lux_meter_view.h"

#include <algorithm>
#include <cmath>

#include "platform/ui/screen_view.h"

namespace nembra {
namespace {

// Mean luma that reads Bv 0 at the fixed exposure: mid-grey (118) is two stops above it.
constexpr double kLumaAtZeroBrightness = 118.0 / 4.0;

}  // namespace

std::string LuxMeterView::imageFor(double value) {
  if (value < -0.5) return "sun-red";
  if (value < 1.0) return "sun-yellow";
  return "sun-white";
}

void LuxMeterView::setCurrentLuminousity(double value) {
  currentLuminousity_ = value;
  updateImage();
}

void LuxMeterView::updateImage() {
  if (!imageView_) return;  // not in a window
  image_ = imageFor(currentLuminousity_);
  shown_ = image_ == "sun-white" ? true : !shown_;
  ButtonState state;
  state.image = image_;
  // What the terminal shows in place of the glyph.
  state.title = image_ == "sun-white"    ? "light ok"
                : image_ == "sun-yellow" ? "low light"
                                         : "too dark";
  state.enabled = false;  // an indicator, not a control
  state.hidden = !shown_;
  imageView_->setButton(kButton, state);
}

double LuxMeterView::meanLuma(const VideoFrame& frame) {
  if (frame.width <= 0 || frame.height <= 0 || frame.planes[0].empty()) return 0;
  const int step = 4;
  uint64_t sum = 0;
  uint64_t count = 0;
  for (int y = 0; y < frame.height; y += step) {
    const size_t row = static_cast<size_t>(y) * frame.strides[0];
    if (row + frame.width > frame.planes[0].size()) break;
    const uint8_t* line = frame.planes[0].data() + row;
    for (int x = 0; x < frame.width; x += step) sum += line[x];
    count += (frame.width + step - 1) / step;
  }
  return count ? static_cast<double>(sum) / count : 0;
}

double LuxMeterView::brightnessOfLuma(double meanLuma) {
  // A black frame has no finite brightness; one grey level above it stands in.
  return std::log2(std::max(meanLuma, 1.0) / kLumaAtZeroBrightness);
}

}  // namespace nembra
