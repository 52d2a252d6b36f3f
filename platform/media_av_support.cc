#include "platform/media_av_support.h"

#include <cmath>

extern "C" {
#include <libavutil/display.h>
}

namespace nembra {

std::string avErrorText(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof(text));
  return text;
}

int avStreamRotation(const AVStream* stream) {
  size_t size = 0;
  const uint8_t* matrix = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
  if (!matrix || size < 9 * sizeof(int32_t)) return 0;
  // The matrix gives the counter-clockwise angle; pictures are turned the other way to display.
  double degrees = -std::round(av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix)));
  if (std::isnan(degrees)) return 0;
  int clockwise = static_cast<int>(degrees) % 360;
  if (clockwise < 0) clockwise += 360;
  // Only quarter turns are displayable without resampling; round anything else to the nearest.
  return ((clockwise + 45) / 90 % 4) * 90;
}

AvInput openAvInput(const std::string& path, std::string& error) {
  AVFormatContext* raw = nullptr;
  int rc = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
  if (rc < 0) {
    error = avErrorText(rc);
    return nullptr;
  }
  AvInput input(raw);
  rc = avformat_find_stream_info(input.get(), nullptr);
  if (rc < 0) {
    error = avErrorText(rc);
    return nullptr;
  }
  return input;
}

RawMediaFrame wrapAvFrame(RawMediaFrame::Kind kind, AVFrame* frame, double pts) {
  RawMediaFrame::Shape shape;
  if (frame) shape = {frame->width, frame->height, frame->nb_samples, frame->sample_rate};
  return RawMediaFrame(
      kind, frame, [](AVFrame* owned) { av_frame_free(&owned); }, shape, pts);
}

}  // namespace nembra
