#include "platform/ffmpeg/ffmpeg_picture_decoder.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "platform/ffmpeg/ffmpeg_av_support.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

namespace nembra {
namespace {

// A GIF frame without a delay is shown for this long, as browsers do.
constexpr double kDefaultGifDelay = 0.1;
// The MJPEG decoder can decode at 1/2, 1/4 or 1/8 of the stored size.
constexpr int kMaxJpegLowres = 3;

uint32_t be16(const uint8_t* p) { return (uint32_t(p[0]) << 8) | p[1]; }
uint32_t be32(const uint8_t* p) { return (be16(p) << 16) | be16(p + 2); }

bool peekJpeg(std::span<const uint8_t> b, int& width, int& height) {
  size_t i = 2;
  while (i + 4 <= b.size()) {
    if (b[i] != 0xFF) return false;
    const uint8_t marker = b[i + 1];
    if (marker == 0xFF) {
      ++i;  // fill byte
      continue;
    }
    const size_t length = be16(&b[i + 2]);
    // Start-of-frame markers, except DHT (C4), JPG (C8) and DAC (CC) in the same range.
    if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC) {
      if (i + 9 > b.size()) return false;
      height = static_cast<int>(be16(&b[i + 5]));
      width = static_cast<int>(be16(&b[i + 7]));
      return width > 0 && height > 0;
    }
    i += 2 + length;
  }
  return false;
}

struct SwsFreer {
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};

struct AvioFreer {
  void operator()(AVIOContext* io) const {
    if (!io) return;
    av_freep(&io->buffer);
    avio_context_free(&io);
  }
};

// Reads the picture's bytes for the GIF demuxer.
struct MemoryReader {
  std::span<const uint8_t> bytes;
  size_t position = 0;

  static int read(void* opaque, uint8_t* buffer, int size) {
    auto* self = static_cast<MemoryReader*>(opaque);
    const size_t left = self->bytes.size() - self->position;
    if (left == 0) return AVERROR_EOF;
    const size_t n = std::min(left, static_cast<size_t>(size));
    std::memcpy(buffer, self->bytes.data() + self->position, n);
    self->position += n;
    return static_cast<int>(n);
  }
  static int64_t seek(void* opaque, int64_t offset, int whence) {
    auto* self = static_cast<MemoryReader*>(opaque);
    const auto size = static_cast<int64_t>(self->bytes.size());
    if (whence == AVSEEK_SIZE) return size;
    int64_t target = offset;
    if ((whence & ~AVSEEK_FORCE) == SEEK_CUR) target += static_cast<int64_t>(self->position);
    if ((whence & ~AVSEEK_FORCE) == SEEK_END) target += size;
    if (target < 0 || target > size) return AVERROR(EINVAL);
    self->position = static_cast<size_t>(target);
    return target;
  }
};

// Turns decoded frames into the picture's RGBA frames at one output size.
class FrameCollector {
 public:
  FrameCollector(const char* format, const PictureLimits& limits, Picture& picture)
      : format_(format), limits_(limits), picture_(picture) {}

  // Returns false once the picture is complete (the budget is spent).
  OptionalError add(const AVFrame& frame, double duration, bool& more) {
    more = true;
    if (frame.decode_error_flags != 0 || (frame.flags & AV_FRAME_FLAG_CORRUPT)) {
      if (picture_.frames.empty()) {
        return Error::media(std::string("the ") + format_ + " picture is damaged");
      }
      more = false;  // keep the good frames of an animation whose tail is broken
      return std::nullopt;
    }
    if (picture_.frames.empty()) chooseSize(frame);
    const size_t frameBytes = static_cast<size_t>(picture_.width) * picture_.height * 4;
    if (!picture_.frames.empty() && picture_.byteSize() + frameBytes > limits_.maxBytes) {
      picture_.truncated = true;
      more = false;
      return std::nullopt;
    }
    scaler_.reset(sws_getCachedContext(
        scaler_.release(), frame.width, frame.height, static_cast<AVPixelFormat>(frame.format),
        picture_.width, picture_.height, AV_PIX_FMT_RGBA, SWS_AREA, nullptr, nullptr, nullptr));
    if (!scaler_) return Error::media("cannot convert the picture's pixel format");
    PictureFrame out;
    out.rgba.resize(frameBytes);
    out.duration = duration;
    uint8_t* destination[4] = {out.rgba.data(), nullptr, nullptr, nullptr};
    int destinationStride[4] = {picture_.width * 4, 0, 0, 0};
    sws_scale(scaler_.get(), frame.data, frame.linesize, 0, frame.height, destination,
              destinationStride);
    picture_.frames.push_back(std::move(out));
    return std::nullopt;
  }

 private:
  void chooseSize(const AVFrame& frame) {
    const double scale = std::min(
        {1.0, double(limits_.maxWidth) / frame.width, double(limits_.maxHeight) / frame.height});
    picture_.width = std::max(1, static_cast<int>(frame.width * scale + 0.5));
    picture_.height = std::max(1, static_cast<int>(frame.height * scale + 0.5));
  }

  const char* format_;
  const PictureLimits& limits_;
  Picture& picture_;
  std::unique_ptr<SwsContext, SwsFreer> scaler_;
};

OptionalError openDecoder(AVCodecID id, const AVCodecParameters* parameters, int lowres,
                          int64_t maxPixels, AvCodecContext& decoder, const char* format) {
  const AVCodec* codec = avcodec_find_decoder(id);
  if (!codec) return Error::media(std::string("this FFmpeg cannot decode ") + format);
  decoder.reset(avcodec_alloc_context3(codec));
  if (!decoder) return Error::internal("out of memory");
  if (parameters) avcodec_parameters_to_context(decoder.get(), parameters);
  decoder->lowres = lowres;
  decoder->max_pixels = maxPixels;
  const int rc = avcodec_open2(decoder.get(), codec, nullptr);
  if (rc < 0) return Error::media("cannot open the picture decoder: " + avErrorText(rc));
  return std::nullopt;
}

Error decodeFailure(const char* format, int rc) {
  return Error::media(std::string("the ") + format +
                      " picture does not decode: " + avErrorText(rc));
}

// Sends |packet| (null to drain) and collects what comes out.
OptionalError pump(AVCodecContext& decoder, const AVPacket* packet, double duration,
                   const char* format, FrameCollector& collector, AVFrame& frame, bool& more) {
  int rc = avcodec_send_packet(&decoder, packet);
  if (rc < 0 && rc != AVERROR_EOF && rc != AVERROR(EAGAIN)) return decodeFailure(format, rc);
  while (more) {
    rc = avcodec_receive_frame(&decoder, &frame);
    if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) break;
    if (rc < 0) return decodeFailure(format, rc);
    double frameDuration = duration;
    if (frameDuration <= 0 && frame.pkt_duration > 0 && decoder.pkt_timebase.den > 0) {
      frameDuration = frame.pkt_duration * av_q2d(decoder.pkt_timebase);
    }
    auto error = collector.add(frame, frameDuration, more);
    av_frame_unref(&frame);
    if (error) return error;
  }
  return std::nullopt;
}

OptionalError decodeSingle(std::span<const uint8_t> bytes, AVCodecID id, const char* format,
                           int lowres, int64_t maxPixels, FrameCollector& collector) {
  AvCodecContext decoder;
  if (auto error = openDecoder(id, nullptr, lowres, maxPixels, decoder, format)) return error;
  AvPacket packet(av_packet_alloc());
  AvFrame frame(av_frame_alloc());
  if (!packet || !frame) return Error::internal("out of memory");
  // The decoder reads past the end in wide words; the padding keeps that inside the buffer.
  if (av_new_packet(packet.get(), static_cast<int>(bytes.size())) < 0) {
    return Error::internal("out of memory");
  }
  std::memcpy(packet->data, bytes.data(), bytes.size());
  bool more = true;
  if (auto error = pump(*decoder, packet.get(), 0, format, collector, *frame, more)) return error;
  if (more) {
    if (auto error = pump(*decoder, nullptr, 0, format, collector, *frame, more)) return error;
  }
  return std::nullopt;
}

OptionalError decodeAnimation(std::span<const uint8_t> bytes, const char* format, int64_t maxPixels,
                              FrameCollector& collector) {
  MemoryReader reader{bytes};
  constexpr int kBufferSize = 64 * 1024;
  auto* buffer = static_cast<uint8_t*>(av_malloc(kBufferSize));
  if (!buffer) return Error::internal("out of memory");
  std::unique_ptr<AVIOContext, AvioFreer> io(avio_alloc_context(
      buffer, kBufferSize, 0, &reader, &MemoryReader::read, nullptr, &MemoryReader::seek));
  if (!io) {
    av_free(buffer);
    return Error::internal("out of memory");
  }
  AVFormatContext* raw = avformat_alloc_context();
  if (!raw) return Error::internal("out of memory");
  raw->pb = io.get();
  raw->flags |= AVFMT_FLAG_CUSTOM_IO;
  int rc = avformat_open_input(&raw, nullptr, av_find_input_format("gif"), nullptr);
  if (rc < 0) return decodeFailure(format, rc);  // avformat_open_input freed |raw|
  AvInput input(raw);
  if (input->nb_streams < 1) return Error::media(std::string("the ") + format + " has no picture");
  AVStream* stream = input->streams[0];
  AvCodecContext decoder;
  if (auto error = openDecoder(stream->codecpar->codec_id, stream->codecpar, 0, maxPixels, decoder,
                               format)) {
    return error;
  }
  decoder->pkt_timebase = stream->time_base;
  AvPacket packet(av_packet_alloc());
  AvFrame frame(av_frame_alloc());
  if (!packet || !frame) return Error::internal("out of memory");
  bool more = true;
  while (more) {
    rc = av_read_frame(input.get(), packet.get());
    if (rc == AVERROR_EOF) break;
    if (rc < 0) return decodeFailure(format, rc);
    double duration = packet->duration > 0 ? packet->duration * av_q2d(stream->time_base) : 0;
    if (duration <= 0) duration = kDefaultGifDelay;
    auto error = pump(*decoder, packet.get(), duration, format, collector, *frame, more);
    av_packet_unref(packet.get());
    if (error) return error;
  }
  if (more) {
    if (auto error = pump(*decoder, nullptr, kDefaultGifDelay, format, collector, *frame, more)) {
      return error;
    }
  }
  return std::nullopt;
}

std::string sizeText(int width, int height) {
  return std::to_string(width) + " × " + std::to_string(height) + " pixels";
}

// A JPEG ends with the EOI marker after its last scan. The decoder fills a cut-short scan with
// grey and reports nothing, so the cut is found here. Markers cannot occur inside a scan's
// coded data (0xFF there is followed by 0x00), and the last SOS is the main picture's: an EXIF
// thumbnail, with its own EOI, comes before it.
bool jpegIsCutShort(std::span<const uint8_t> bytes) {
  size_t lastScan = 0;
  bool scanned = false;
  for (size_t i = 0; i + 1 < bytes.size(); ++i) {
    if (bytes[i] == 0xFF && bytes[i + 1] == 0xDA) {
      lastScan = i;
      scanned = true;
    }
  }
  if (!scanned) return false;  // no scan at all: the decoder says what is wrong
  for (size_t i = lastScan + 2; i + 1 < bytes.size(); ++i) {
    if (bytes[i] == 0xFF && bytes[i + 1] == 0xD9) return false;
  }
  return true;
}

}  // namespace

bool ffmpegPeekPictureSize(std::span<const uint8_t> bytes, const char* format, int& width,
                           int& height) {
  const std::string name = format;
  if (name == "jpeg") return peekJpeg(bytes, width, height);
  if (name == "png" && bytes.size() >= 24 && std::memcmp(&bytes[12], "IHDR", 4) == 0) {
    width = static_cast<int>(std::min<uint32_t>(be32(&bytes[16]), INT32_MAX));
    height = static_cast<int>(std::min<uint32_t>(be32(&bytes[20]), INT32_MAX));
    return true;
  }
  if (name == "gif" && bytes.size() >= 10) {
    width = bytes[6] | (bytes[7] << 8);
    height = bytes[8] | (bytes[9] << 8);
    return true;
  }
  return false;
}

OptionalError ffmpegDecodePicture(std::span<const uint8_t> bytes, const char* format, int codecId,
                                  const PictureLimits& limits, Picture& picture) {
  picture = Picture{};
  picture.format = format;
  const auto id = static_cast<AVCodecID>(codecId);
  int width = 0;
  int height = 0;
  const bool sized = ffmpegPeekPictureSize(bytes, format, width, height);
  int lowres = 0;
  if (sized && id == AV_CODEC_ID_MJPEG && width > 0 && height > 0) {
    // The smallest reduced decode still at least as large as what will be shown.
    const double scale =
        std::min({1.0, double(limits.maxWidth) / width, double(limits.maxHeight) / height});
    const int shownWidth = static_cast<int>(width * scale);
    const int shownHeight = static_cast<int>(height * scale);
    while (lowres < kMaxJpegLowres && (width >> (lowres + 1)) >= shownWidth &&
           (height >> (lowres + 1)) >= shownHeight) {
      ++lowres;
    }
  }
  // A reduced JPEG decode allocates only the reduced size.
  const int64_t maxPixels = limits.maxSourcePixels << (2 * lowres);
  if (sized) {
    if (width <= 0 || height <= 0) {
      return Error::media(std::string("the ") + format + " picture declares no size");
    }
    if (static_cast<int64_t>(width) * height > maxPixels) {
      return Error::media(std::string("the ") + format +
                          " picture is too large to show: " + sizeText(width, height));
    }
    picture.sourceWidth = width;
    picture.sourceHeight = height;
  }
  if (id == AV_CODEC_ID_MJPEG && jpegIsCutShort(bytes)) {
    return Error::media(std::string("the ") + format + " picture is truncated");
  }
  FrameCollector collector(format, limits, picture);
  OptionalError error = id == AV_CODEC_ID_GIF
                            ? decodeAnimation(bytes, format, maxPixels, collector)
                            : decodeSingle(bytes, id, format, lowres, maxPixels, collector);
  if (error) {
    // The decoder's own limit, for formats whose header is not read above.
    if (error->message.find("Invalid argument") != std::string::npos && !sized) {
      error->message = std::string("the ") + format + " picture is too large to show";
    }
    picture.frames.clear();
    return error;
  }
  if (picture.frames.empty()) {
    return Error::media(std::string("the ") + format + " picture does not decode: no picture");
  }
  if (!sized) {
    picture.sourceWidth = picture.width;
    picture.sourceHeight = picture.height;
  }
  if (picture.frames.size() == 1) picture.frames[0].duration = 0;
  return std::nullopt;
}

}  // namespace nembra
