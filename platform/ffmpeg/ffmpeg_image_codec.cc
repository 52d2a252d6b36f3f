#include <algorithm>
#include <cstring>

#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_media_backend.h"
#include "platform/ffmpeg/ffmpeg_picture_decoder.h"
#include "platform/media/image_codec.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace nembra {
namespace {

struct Signature {
  const char* format;
  AVCodecID codec;
  std::vector<uint8_t> magic;
  size_t offset = 0;
};

const std::vector<Signature>& signatures() {
  static const std::vector<Signature> table = {
      {"jpeg", AV_CODEC_ID_MJPEG, {0xFF, 0xD8, 0xFF}},
      {"png", AV_CODEC_ID_PNG, {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'}},
      {"bmp", AV_CODEC_ID_BMP, {'B', 'M'}},
      {"gif", AV_CODEC_ID_GIF, {'G', 'I', 'F', '8'}},
      {"webp", AV_CODEC_ID_WEBP, {'W', 'E', 'B', 'P'}, 8},
      {"tiff", AV_CODEC_ID_TIFF, {'I', 'I', 42, 0}},
      {"tiff", AV_CODEC_ID_TIFF, {'M', 'M', 0, 42}},
  };
  return table;
}

const Signature* identify(std::span<const uint8_t> bytes) {
  for (const Signature& signature : signatures()) {
    if (bytes.size() < signature.offset + signature.magic.size()) continue;
    if (std::equal(signature.magic.begin(), signature.magic.end(),
                   bytes.begin() + static_cast<std::ptrdiff_t>(signature.offset))) {
      return &signature;
    }
  }
  return nullptr;
}

struct SwsFreer {
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};

// The first picture |bytes| decode to.
OptionalError decode(std::span<const uint8_t> bytes, const Signature& signature, AvFrame& picture) {
  const AVCodec* codec = avcodec_find_decoder(signature.codec);
  if (!codec) return Error::media(std::string("this FFmpeg cannot decode ") + signature.format);
  AvCodecContext decoder(avcodec_alloc_context3(codec));
  AvPacket packet(av_packet_alloc());
  AvFrame frame(av_frame_alloc());
  if (!decoder || !packet || !frame) return Error::internal("out of memory");
  int rc = avcodec_open2(decoder.get(), codec, nullptr);
  if (rc < 0) return Error::media("cannot open the picture decoder: " + avErrorText(rc));
  // The decoder reads past the end in wide words; the padding keeps that inside the buffer.
  rc = av_new_packet(packet.get(), static_cast<int>(bytes.size()));
  if (rc < 0) return Error::internal("out of memory");
  std::memcpy(packet->data, bytes.data(), bytes.size());
  rc = avcodec_send_packet(decoder.get(), packet.get());
  if (rc >= 0) rc = avcodec_send_packet(decoder.get(), nullptr);
  if (rc < 0 && rc != AVERROR_EOF) {
    return Error::media(std::string("the ") + signature.format +
                        " picture does not decode: " + avErrorText(rc));
  }
  rc = avcodec_receive_frame(decoder.get(), frame.get());
  if (rc < 0) {
    return Error::media(std::string("the ") + signature.format +
                        " picture does not decode: " + avErrorText(rc));
  }
  if ((frame->decode_error_flags != 0) || (frame->flags & AV_FRAME_FLAG_CORRUPT)) {
    return Error::media(std::string("the ") + signature.format + " picture is damaged");
  }
  picture = std::move(frame);
  return std::nullopt;
}

OptionalError encode(const AVFrame& decoded, int quality, std::vector<uint8_t>& jpeg) {
  AvFrame picture = allocateAvPicture(AV_PIX_FMT_YUVJ420P, decoded.width, decoded.height);
  if (!picture) return Error::internal("out of memory");
  std::unique_ptr<SwsContext, SwsFreer> scaler(sws_getContext(
      decoded.width, decoded.height, static_cast<AVPixelFormat>(decoded.format), decoded.width,
      decoded.height, AV_PIX_FMT_YUVJ420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
  if (!scaler) return Error::media("cannot convert the picture's pixel format");
  sws_scale(scaler.get(), decoded.data, decoded.linesize, 0, decoded.height, picture->data,
            picture->linesize);

  return encodeAvJpeg(*picture, quality, jpeg);
}

class FfmpegImageCodec final : public ImageCodec {
 public:
  OptionalError inspect(std::span<const uint8_t> bytes, ImageInfo& info) override {
    const Signature* signature = identify(bytes);
    if (!signature) {
      return Error::media(bytes.empty() ? "the picture is empty"
                                        : "the bytes are not a picture of a known format");
    }
    AvFrame picture;
    if (auto error = decode(bytes, *signature, picture)) return error;
    info = ImageInfo{signature->format, picture->width, picture->height};
    return std::nullopt;
  }

  OptionalError encodeJpeg(std::span<const uint8_t> bytes, int quality,
                           std::vector<uint8_t>& jpeg) override {
    const Signature* signature = identify(bytes);
    if (!signature) {
      return Error::media(bytes.empty() ? "the picture is empty"
                                        : "the bytes are not a picture of a known format");
    }
    AvFrame picture;
    if (auto error = decode(bytes, *signature, picture)) return error;
    if (signature->codec == AV_CODEC_ID_MJPEG) {
      jpeg.assign(bytes.begin(), bytes.end());
      return std::nullopt;
    }
    return encode(*picture, quality, jpeg);
  }

  OptionalError decodePicture(std::span<const uint8_t> bytes, const PictureLimits& limits,
                              Picture& picture) override {
    const Signature* signature = identify(bytes);
    if (!signature) {
      return Error::media(bytes.empty() ? "the picture is empty"
                                        : "the bytes are not a picture of a known format");
    }
    return ffmpegDecodePicture(bytes, signature->format, signature->codec, limits, picture);
  }
};

}  // namespace

std::unique_ptr<ImageCodec> newFfmpegImageCodec() { return std::make_unique<FfmpegImageCodec>(); }

}  // namespace nembra
