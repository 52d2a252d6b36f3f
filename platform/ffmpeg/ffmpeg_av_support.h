// Small pieces the FFmpeg-backed media classes share: readable error texts, owning handles for
// libav objects, and the display rotation a file asks for.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "nembra/error.h"
#include "platform/media/media_source_raw_frame.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace nembra {

// av_strerror's text for an AVERROR code.
std::string avErrorText(int code);

// Clockwise degrees (0, 90, 180 or 270) the stream's display matrix turns its pictures.
int avStreamRotation(const AVStream* stream);

struct AvInputCloser {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct AvCodecContextFreer {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct AvFrameFreer {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct AvPacketFreer {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

using AvInput = std::unique_ptr<AVFormatContext, AvInputCloser>;
using AvCodecContext = std::unique_ptr<AVCodecContext, AvCodecContextFreer>;
using AvFrame = std::unique_ptr<AVFrame, AvFrameFreer>;
using AvPacket = std::unique_ptr<AVPacket, AvPacketFreer>;

// Wraps |frame| (owned from here) for the encoders, with its shape read from it.
RawMediaFrame wrapAvFrame(RawMediaFrame::Kind kind, AVFrame* frame, double pts);

// A picture frame of |format| and size with its planes allocated; null when out of memory.
AvFrame allocateAvPicture(AVPixelFormat format, int width, int height);

// Encodes |picture| (full-range YUV 4:2:0: YUVJ420P, or YUV420P marked AVCOL_RANGE_JPEG) as one
// JPEG at quantizer |quality| (2, the best, to 31, the smallest; clamped to that range).
OptionalError encodeAvJpeg(const AVFrame& picture, int quality, std::vector<uint8_t>& jpeg);

// Opens |path| and reads its stream parameters; on failure |error| holds the reason.
AvInput openAvInput(const std::string& path, std::string& error);

// Opens a decoder for |input|'s best track of |type|, timed in that track's time base. A file
// without such a track leaves |index| at -1 and is no error.
OptionalError openBestAvDecoder(AVFormatContext& input, AVMediaType type, int& index,
                                AvCodecContext& decoder);

}  // namespace nembra
