#include "platform/ffmpeg/ffmpeg_file_source.h"

#include <algorithm>

#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/media/media_encoder_h264_units.h"
#include "platform/media/media_source_adts.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace nembra {

std::unique_ptr<MediaSourceFile> MediaSourceFile::open(const std::string& path,
                                                       OptionalError& error) {
  std::unique_ptr<MediaSourceFile> source(new MediaSourceFile());
  error = source->openPath(path);
  if (error) source.reset();
  return source;
}

MediaSourceFile::~MediaSourceFile() {
  av_packet_free(&packet_);
  avformat_close_input(&input_);
}

int MediaSourceFile::interruptCallback(void* opaque) {
  return static_cast<MediaSourceFile*>(opaque)->interrupted_.load() ? 1 : 0;
}

OptionalError MediaSourceFile::openPath(const std::string& path) {
  path_ = path;
  input_ = avformat_alloc_context();
  packet_ = av_packet_alloc();
  if (!input_ || !packet_) return Error::internal("out of memory opening " + path);
  input_->interrupt_callback = {&MediaSourceFile::interruptCallback, this};
  int rc = avformat_open_input(&input_, path.c_str(), nullptr, nullptr);
  if (rc < 0) {
    // avformat_open_input frees the context on failure.
    return Error::file("can't open " + path + ": " + avErrorText(rc), AVUNERROR(rc));
  }
  rc = avformat_find_stream_info(input_, nullptr);
  if (rc < 0) return Error::media("can't read the streams of " + path + ": " + avErrorText(rc));

  videoStream_ = av_find_best_stream(input_, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  audioStream_ = av_find_best_stream(input_, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
  // Cover art is a picture, not a video track.
  if (videoStream_ >= 0 &&
      (input_->streams[videoStream_]->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
    videoStream_ = -1;
  }
  if (videoStream_ < 0 && audioStream_ < 0) {
    return Error::media(path + " has neither a video nor an audio stream");
  }

  info_.description = "file " + path;
  if (videoStream_ >= 0) {
    const AVStream* stream = input_->streams[videoStream_];
    const AVCodecParameters* par = stream->codecpar;
    if (par->codec_id != AV_CODEC_ID_H264) {
      return Error::media("unsupported video codec in " + path + ": " +
                          avcodec_get_name(par->codec_id) + " (only H.264 is sent as is)");
    }
    std::span<const uint8_t> extradata(par->extradata, static_cast<size_t>(par->extradata_size));
    if (!extradata.empty() && extradata[0] == 1) {
      h264::AvcConfig config;
      if (!h264::parseAvcDecoderConfig(extradata, config)) {
        return Error::media("broken H.264 configuration record in " + path);
      }
      nalLengthSize_ = config.lengthSize;
      if (!config.sps.empty()) sps_ = config.sps.front();
      if (!config.pps.empty()) pps_ = config.pps.front();
    } else {
      // Annex B: parameter sets in the extradata, if any, and in band.
      std::vector<uint8_t> ignored;
      h264::repackAccessUnit(h264::splitAnnexB(extradata), ignored, sps_, pps_);
    }
    info_.hasVideo = true;
    info_.videoEncoded = true;
    info_.width = par->width;
    info_.height = par->height;
    const AVRational rate = av_guess_frame_rate(input_, input_->streams[videoStream_], nullptr);
    info_.frameRate = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0.0;
    // Frames held back for reordering: B-frames.
    info_.videoReordered = par->video_delay > 0;
  }
  if (audioStream_ >= 0) {
    const AVCodecParameters* par = input_->streams[audioStream_]->codecpar;
    if (par->codec_id != AV_CODEC_ID_AAC) {
      return Error::media("unsupported audio codec in " + path + ": " +
                          avcodec_get_name(par->codec_id) + " (only AAC is sent as is)");
    }
    if (par->extradata_size >= 2) {
      asc_ = {par->extradata[0], par->extradata[1]};
      ascKnown_ = true;
    }
    info_.hasAudio = true;
    info_.audioEncoded = true;
    info_.sampleRate = par->sample_rate;
    info_.channels = par->ch_layout.nb_channels;
  }
  if (input_->duration > 0) info_.duration = static_cast<double>(input_->duration) / AV_TIME_BASE;
  return std::nullopt;
}

double MediaSourceFile::secondsOf(const AVPacket& packet) const {
  const AVRational timeBase = input_->streams[packet.stream_index]->time_base;
  int64_t timestamp = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
  if (timestamp == AV_NOPTS_VALUE) timestamp = 0;
  return static_cast<double>(timestamp) * av_q2d(timeBase);
}

bool MediaSourceFile::convertVideo(const AVPacket& packet, EncodedVideoSample& sample,
                                   OptionalError& error) {
  std::span<const uint8_t> bytes(packet.data, static_cast<size_t>(packet.size));
  std::vector<h264::NalUnit> units;
  if (nalLengthSize_ > 0) {
    if (!h264::splitLengthPrefixed(bytes, nalLengthSize_, units)) {
      error = Error::media("broken H.264 access unit in " + path_);
      return false;
    }
  } else {
    units = h264::splitAnnexB(bytes);
  }
  sample.data.clear();
  h264::repackAccessUnit(units, sample.data, sps_, pps_);
  if (sample.data.empty()) return false;
  sample.sps = sps_;
  sample.pps = pps_;
  sample.keyFrame = (packet.flags & AV_PKT_FLAG_KEY) != 0;
  return true;
}

bool MediaSourceFile::convertAudio(const AVPacket& packet, EncodedAudioSample& sample,
                                   OptionalError& error) {
  std::span<const uint8_t> bytes(packet.data, static_cast<size_t>(packet.size));
  AdtsFrame adts;
  if (parseAdtsHeader(bytes, adts)) {
    if (adts.frameLength != bytes.size()) {
      // One packet per ADTS frame is what the demuxers deliver; anything else is not framed.
      error = Error::media("AAC packet in " + path_ + " holds more than one ADTS frame");
      return false;
    }
    asc_ = adts.asc;
    ascKnown_ = true;
    bytes = bytes.subspan(adts.headerLength);
  }
  if (!ascKnown_) {
    error = Error::media("no AAC configuration in " + path_);
    return false;
  }
  if (bytes.empty()) return false;
  sample.data.assign(bytes.begin(), bytes.end());
  sample.asc = asc_;
  return true;
}

bool MediaSourceFile::read(MediaSourceItem& item, OptionalError& error) {
  while (!finished_) {
    if (interrupted_.load()) {
      error = Error::cancelled("reading " + path_ + " interrupted");
      finished_ = true;
      break;
    }
    const int rc = av_read_frame(input_, packet_);
    if (rc == AVERROR_EOF) {
      finished_ = true;
      break;
    }
    if (rc < 0) {
      error = interrupted_.load() ? Error::cancelled("reading " + path_ + " interrupted")
                                  : Error::media("can't read " + path_ + ": " + avErrorText(rc));
      finished_ = true;
      break;
    }
    struct Unref {
      AVPacket* packet;
      ~Unref() { av_packet_unref(packet); }
    } unref{packet_};
    if (packet_->stream_index != videoStream_ && packet_->stream_index != audioStream_) continue;

    const double seconds = secondsOf(*packet_);
    if (startTime_ < 0) startTime_ = seconds;
    const double pts = std::max(0.0, seconds - startTime_);
    const SampleStep step =
        packet_->stream_index == videoStream_
            ? deliverSample<EncodedVideoSample>(
                  pts, error, item,
                  [&](auto& sample) { return convertVideo(*packet_, sample, error); })
            : deliverSample<EncodedAudioSample>(pts, error, item, [&](auto& sample) {
                return convertAudio(*packet_, sample, error);
              });
    if (step == SampleStep::Delivered) return true;
    if (step == SampleStep::Failed) finished_ = true;
  }
  return false;
}

}  // namespace nembra
