#include <algorithm>
#include <cmath>

#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_media_backend.h"
#include "platform/media/frame_grabber.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

namespace nembra {
namespace {

struct SwsFreer {
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};

// Pictures are full-range YUV 4:2:0, the JPEG encoder's native form.
AvFrame allocatePicture(int width, int height) {
  AvFrame picture = allocateAvPicture(AV_PIX_FMT_YUV420P, width, height);
  if (picture) picture->color_range = AVCOL_RANGE_JPEG;
  return picture;
}

// Quarter-turns a YUV 4:2:0 picture clockwise by |degrees|; every plane turns alike.
AvFrame rotatePicture(const AVFrame& source, int degrees) {
  bool swap = degrees == 90 || degrees == 270;
  AvFrame turned =
      allocatePicture(swap ? source.height : source.width, swap ? source.width : source.height);
  if (!turned) return nullptr;
  for (int plane = 0; plane < 3; ++plane) {
    int w = plane == 0 ? source.width : source.width / 2;
    int h = plane == 0 ? source.height : source.height / 2;
    const uint8_t* in = source.data[plane];
    uint8_t* out = turned->data[plane];
    int inStride = source.linesize[plane];
    int outStride = turned->linesize[plane];
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        uint8_t value = in[y * inStride + x];
        switch (degrees) {
          case 90:
            out[x * outStride + (h - 1 - y)] = value;
            break;
          case 180:
            out[(h - 1 - y) * outStride + (w - 1 - x)] = value;
            break;
          default:
            out[(w - 1 - x) * outStride + y] = value;
            break;
        }
      }
    }
  }
  return turned;
}

class FfmpegFrameGrabber final : public FrameGrabber {
 public:
  OptionalError grab(const std::string& path, const FrameGrabOptions& options,
                     GrabbedFrame& result) override {
    std::string openError;
    AvInput input = openAvInput(path, openError);
    if (!input) return Error::media("cannot open " + path + " as media (" + openError + ")");
    const AVCodec* codec = nullptr;
    int index = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (index < 0 || !codec) return Error::media("no picture track in " + path);
    AVStream* stream = input->streams[index];

    AvCodecContext decoder(avcodec_alloc_context3(codec));
    if (!decoder) return Error::internal("out of memory");
    int rc = avcodec_parameters_to_context(decoder.get(), stream->codecpar);
    if (rc >= 0) rc = avcodec_open2(decoder.get(), codec, nullptr);
    if (rc < 0) return Error::media("cannot open the picture decoder: " + avErrorText(rc));

    int64_t start = stream->start_time == AV_NOPTS_VALUE ? 0 : stream->start_time;
    int64_t target = start + static_cast<int64_t>(options.atSeconds / av_q2d(stream->time_base));
    if (options.atSeconds > 0) {
      av_seek_frame(input.get(), index, target, AVSEEK_FLAG_BACKWARD);
    }
    AvFrame decoded;
    if (auto error = decodeAt(*input, *decoder, index, target, decoded)) return error;

    int rotation = options.applyRotation ? avStreamRotation(stream) : 0;
    bool sideways = rotation == 90 || rotation == 270;
    int shownWidth = sideways ? decoded->height : decoded->width;
    int shownHeight = sideways ? decoded->width : decoded->height;
    int fitWidth = 0, fitHeight = 0;
    fitInside(shownWidth, shownHeight, options.maxWidth, options.maxHeight, fitWidth, fitHeight);
    int scaledWidth = sideways ? fitHeight : fitWidth;
    int scaledHeight = sideways ? fitWidth : fitHeight;

    // The "J" formats are full-range YUV under a deprecated name; the scaler wants the range
    // given apart.
    auto format = static_cast<AVPixelFormat>(decoded->format);
    bool fullRange = decoded->color_range == AVCOL_RANGE_JPEG;
    if (format == AV_PIX_FMT_YUVJ420P || format == AV_PIX_FMT_YUVJ422P ||
        format == AV_PIX_FMT_YUVJ444P) {
      format = format == AV_PIX_FMT_YUVJ420P   ? AV_PIX_FMT_YUV420P
               : format == AV_PIX_FMT_YUVJ422P ? AV_PIX_FMT_YUV422P
                                               : AV_PIX_FMT_YUV444P;
      fullRange = true;
    }
    std::unique_ptr<SwsContext, SwsFreer> scaler(
        sws_getContext(decoded->width, decoded->height, format, scaledWidth, scaledHeight,
                       AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!scaler) return Error::media("cannot convert the picture's pixel format");
    const int* coefficients = sws_getCoefficients(SWS_CS_DEFAULT);
    sws_setColorspaceDetails(scaler.get(), coefficients, fullRange ? 1 : 0, coefficients, 1, 0,
                             1 << 16, 1 << 16);
    AvFrame scaled = allocatePicture(scaledWidth, scaledHeight);
    if (!scaled) return Error::internal("out of memory");
    sws_scale(scaler.get(), decoded->data, decoded->linesize, 0, decoded->height, scaled->data,
              scaled->linesize);
    if (rotation != 0) {
      scaled = rotatePicture(*scaled, rotation);
      if (!scaled) return Error::internal("out of memory");
    }
    GrabbedFrame grabbed;
    if (auto error = encodeAvJpeg(*scaled, options.jpegQuality, grabbed.jpeg)) return error;
    grabbed.width = scaled->width;
    grabbed.height = scaled->height;
    result = std::move(grabbed);
    return std::nullopt;
  }

 private:
  // Decodes until the first picture at or after |target|; past the end, the last picture.
  static OptionalError decodeAt(AVFormatContext& input, AVCodecContext& decoder, int index,
                                int64_t target, AvFrame& picture) {
    AvPacket packet(av_packet_alloc());
    AvFrame frame(av_frame_alloc());
    if (!packet || !frame) return Error::internal("out of memory");
    bool draining = false;
    for (;;) {
      if (!draining) {
        int rc = av_read_frame(&input, packet.get());
        if (rc < 0) {
          draining = true;
          avcodec_send_packet(&decoder, nullptr);
        } else {
          bool ours = packet->stream_index == index;
          if (ours) rc = avcodec_send_packet(&decoder, packet.get());
          av_packet_unref(packet.get());
          // A damaged packet is skipped; the next key frame recovers.
          if (!ours || (rc < 0 && rc != AVERROR(EAGAIN))) continue;
        }
      }
      for (;;) {
        int rc = avcodec_receive_frame(&decoder, frame.get());
        if (rc == AVERROR(EAGAIN)) {
          if (!draining) break;
          rc = AVERROR_EOF;  // a flushed decoder has nothing more to give
        }
        if (rc < 0) {
          if (picture) return std::nullopt;
          return Error::media("no picture could be decoded");
        }
        int64_t when = frame->best_effort_timestamp;
        picture.reset(av_frame_clone(frame.get()));
        av_frame_unref(frame.get());
        if (!picture) return Error::internal("out of memory");
        if (when == AV_NOPTS_VALUE || when >= target) return std::nullopt;
      }
    }
  }
};

}  // namespace

void fitInside(int width, int height, int maxWidth, int maxHeight, int& fitWidth, int& fitHeight) {
  double scale = 1.0;
  if (width > 0 && height > 0 && maxWidth > 0 && maxHeight > 0) {
    scale = std::min(
        {1.0, static_cast<double>(maxWidth) / width, static_cast<double>(maxHeight) / height});
  }
  auto even = [](double value) {
    return std::max(2, static_cast<int>(std::lround(value / 2)) * 2);
  };
  fitWidth = even(width * scale);
  fitHeight = even(height * scale);
  if (maxWidth > 0) fitWidth = std::min(fitWidth, maxWidth / 2 * 2);
  if (maxHeight > 0) fitHeight = std::min(fitHeight, maxHeight / 2 * 2);
}

std::unique_ptr<FrameGrabber> newFfmpegFrameGrabber() {
  return std::make_unique<FfmpegFrameGrabber>();
}

}  // namespace nembra
