#include "platform/ffmpeg/ffmpeg_av_support.h"

#include <algorithm>
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

AvFrame allocateAvPicture(AVPixelFormat format, int width, int height) {
  AvFrame picture(av_frame_alloc());
  if (!picture) return nullptr;
  picture->format = format;
  picture->width = width;
  picture->height = height;
  if (av_frame_get_buffer(picture.get(), 0) < 0) return nullptr;
  return picture;
}

OptionalError encodeAvJpeg(const AVFrame& picture, int quality, std::vector<uint8_t>& jpeg) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
  if (!codec) return Error::media("this FFmpeg has no JPEG encoder");
  AvCodecContext encoder(avcodec_alloc_context3(codec));
  AvFrame frame(av_frame_clone(&picture));  // shares the planes; pts and quality are its own
  AvPacket packet(av_packet_alloc());
  if (!encoder || !frame || !packet) return Error::internal("out of memory");
  encoder->width = picture.width;
  encoder->height = picture.height;
  encoder->pix_fmt = static_cast<AVPixelFormat>(picture.format);
  encoder->color_range = AVCOL_RANGE_JPEG;
  encoder->time_base = AVRational{1, 25};
  encoder->flags |= AV_CODEC_FLAG_QSCALE;
  encoder->global_quality = FF_QP2LAMBDA * std::clamp(quality, 2, 31);
  int rc = avcodec_open2(encoder.get(), codec, nullptr);
  if (rc < 0) return Error::media("cannot open the JPEG encoder: " + avErrorText(rc));
  frame->pts = 0;
  frame->quality = encoder->global_quality;
  rc = avcodec_send_frame(encoder.get(), frame.get());
  if (rc >= 0) rc = avcodec_send_frame(encoder.get(), nullptr);
  if (rc >= 0) rc = avcodec_receive_packet(encoder.get(), packet.get());
  if (rc < 0) return Error::media("JPEG encoding failed: " + avErrorText(rc));
  jpeg.assign(packet->data, packet->data + packet->size);
  return std::nullopt;
}

OptionalError openBestAvDecoder(AVFormatContext& input, AVMediaType type, int& index,
                                AvCodecContext& decoder) {
  index = -1;
  const AVCodec* codec = nullptr;
  const int best = av_find_best_stream(&input, type, -1, -1, &codec, 0);
  if (best < 0 || !codec) return std::nullopt;
  AvCodecContext context(avcodec_alloc_context3(codec));
  if (!context) return Error::internal("out of memory");
  int rc = avcodec_parameters_to_context(context.get(), input.streams[best]->codecpar);
  if (rc >= 0) rc = avcodec_open2(context.get(), codec, nullptr);
  if (rc < 0) return Error::media("cannot open a decoder: " + avErrorText(rc));
  context->pkt_timebase = input.streams[best]->time_base;
  index = best;
  decoder = std::move(context);
  return std::nullopt;
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
