#include "platform/ffmpeg/ffmpeg_movie_writer.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "platform/ffmpeg/ffmpeg_aac_encoder.h"
#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_x264_encoder.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

namespace nembra {

namespace {

constexpr AVRational kVideoTimeBase{1, 90000};
constexpr int kVideoStream = 0;
constexpr int kAudioStream = 1;
constexpr int kAacFrameSamples = 1024;
// Stamps further apart than this from where the last PCM ended are a jump, not jitter.
constexpr double kAudioJumpSeconds = 0.005;

// The MP4 decoder configuration record of one SPS and one PPS.
std::vector<uint8_t> avcDecoderConfiguration(const std::vector<uint8_t>& sps,
                                             const std::vector<uint8_t>& pps) {
  std::vector<uint8_t> record;
  record.push_back(1);       // configurationVersion
  record.push_back(sps[1]);  // AVCProfileIndication
  record.push_back(sps[2]);  // profile_compatibility
  record.push_back(sps[3]);  // AVCLevelIndication
  record.push_back(0xFF);    // 4-byte NAL lengths
  record.push_back(0xE1);    // one SPS
  record.push_back(static_cast<uint8_t>(sps.size() >> 8));
  record.push_back(static_cast<uint8_t>(sps.size()));
  record.insert(record.end(), sps.begin(), sps.end());
  record.push_back(1);  // one PPS
  record.push_back(static_cast<uint8_t>(pps.size() >> 8));
  record.push_back(static_cast<uint8_t>(pps.size()));
  record.insert(record.end(), pps.begin(), pps.end());
  return record;
}

void setExtradata(AVCodecParameters* par, const uint8_t* data, size_t size) {
  par->extradata = static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
  if (!par->extradata) return;
  memcpy(par->extradata, data, size);
  par->extradata_size = static_cast<int>(size);
}

struct OutputCloser {
  void operator()(AVFormatContext* context) const {
    if (context->pb && !(context->oformat->flags & AVFMT_NOFILE)) avio_closep(&context->pb);
    avformat_free_context(context);
  }
};

}  // namespace

FfmpegMovieWriter::FfmpegMovieWriter(std::string path, const MovieWriterSettings& settings)
    : path_(std::move(path)), settings_(settings) {}

FfmpegMovieWriter::~FfmpegMovieWriter() {
  closeFile();
  av_packet_free(&packet_);
}

std::unique_ptr<FfmpegMovieWriter> FfmpegMovieWriter::create(const std::string& path,
                                                             const MovieWriterSettings& settings,
                                                             OptionalError& error) {
  if (settings.width < 2 || settings.height < 2) {
    error = Error::invalidArgument("the recording size " + std::to_string(settings.width) + "x" +
                                   std::to_string(settings.height) + " is too small");
    return nullptr;
  }
  std::unique_ptr<FfmpegMovieWriter> writer(new FfmpegMovieWriter(path, settings));
  // libx264 wants even sides.
  writer->video_ = MediaEncoderX264::create(
      {settings.width & ~1, settings.height & ~1, settings.videoBitrate, settings.frameRate},
      error);
  if (!writer->video_) return nullptr;
  if (settings.hasAudio) {
    writer->audio_ = MediaEncoderAAC::create(
        {settings.audioSampleRate, settings.audioChannels, settings.audioBitrate}, error);
    if (!writer->audio_) return nullptr;
  }
  writer->packet_ = av_packet_alloc();
  const std::string part = moviePartPath(path);
  int rc = avformat_alloc_output_context2(&writer->output_, nullptr, "mp4", part.c_str());
  if (rc < 0 || !writer->output_ || !writer->packet_) {
    error = Error::internal("can't set up the MP4 muxer");
    return nullptr;
  }
  rc = avio_open(&writer->output_->pb, part.c_str(), AVIO_FLAG_WRITE);
  if (rc < 0) {
    error = Error::file("can't write " + part + ": " + avErrorText(rc), AVUNERROR(rc));
    return nullptr;
  }
  return writer;
}

OptionalError FfmpegMovieWriter::appendVideo(const RawMediaFrame& frame, double pts) {
  if (finished_) return Error::invalidArgument("the recording is finished");
  if (!start_) start_ = pts;
  std::vector<EncodedVideoSample> samples;
  if (OptionalError error = video_->encode(frame, pts, samples)) return error;
  return writeVideo(samples);
}

OptionalError FfmpegMovieWriter::appendAudio(const RawMediaFrame& frame, double pts) {
  if (finished_) return Error::invalidArgument("the recording is finished");
  if (!audio_ || !start_ || pts < *start_) return std::nullopt;
  // The encoder counts samples from the first frame's own stamp; the track is placed by the
  // caller's stamps (which have pauses taken out).
  if (!audioStart_) audioStart_ = std::make_pair(pts, frame.pts());
  // The encoder counts samples; where the caller's stamps jump (a pause closed on the other
  // track's terms), the track follows the stamps so that audio and pictures stay together.
  if (audioNextStamp_ && std::abs(pts - *audioNextStamp_) > kAudioJumpSeconds) {
    audioShift_ += pts - *audioNextStamp_;
  }
  if (frame.sampleRate() > 0) {
    audioNextStamp_ = pts + static_cast<double>(frame.sampleCount()) / frame.sampleRate();
  }
  std::vector<EncodedAudioSample> samples;
  if (OptionalError error = audio_->encode(frame, samples)) return error;
  return writeAudio(samples);
}

OptionalError FfmpegMovieWriter::writeVideo(std::vector<EncodedVideoSample>& samples) {
  for (EncodedVideoSample& sample : samples) {
    if (!headerWritten_) {
      if (OptionalError error = startFile(sample)) return error;
    }
    int64_t pts = std::llround((sample.pts - *start_) * kVideoTimeBase.den);
    if (pts <= lastVideoPts_) pts = lastVideoPts_ + 1;
    lastVideoPts_ = pts;
    std::vector<uint8_t> data = std::move(sample.data);
    if (OptionalError error = writePacket(kVideoStream, data, pts, sample.keyFrame)) return error;
    writtenDuration_ = sample.pts - *start_ + 1.0 / settings_.frameRate;
  }
  return std::nullopt;
}

OptionalError FfmpegMovieWriter::writeAudio(std::vector<EncodedAudioSample>& samples) {
  for (EncodedAudioSample& sample : samples) {
    asc_ = sample.asc;
    heldAudio_.push_back(std::move(sample));
  }
  if (!headerWritten_) return std::nullopt;
  while (!heldAudio_.empty()) {
    EncodedAudioSample sample = std::move(heldAudio_.front());
    heldAudio_.pop_front();
    const double time = audioStart_->first + (sample.pts - audioStart_->second) + audioShift_;
    int64_t pts = std::llround((time - *start_) * settings_.audioSampleRate);
    if (pts < 0) continue;
    // A frame that would overlap the last one is dropped: the stamps went back.
    if (lastAudioPts_ >= 0 && pts < lastAudioPts_ + kAacFrameSamples / 2) continue;
    lastAudioPts_ = pts;
    if (OptionalError error = writePacket(kAudioStream, sample.data, pts, true)) return error;
  }
  return std::nullopt;
}

OptionalError FfmpegMovieWriter::startFile(const EncodedVideoSample& first) {
  if (first.sps.size() < 4 || first.pps.empty()) return Error::media("no H.264 parameter sets");
  AVStream* video = avformat_new_stream(output_, nullptr);
  if (!video) return Error::internal("out of memory");
  video->time_base = kVideoTimeBase;
  video->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
  video->codecpar->codec_id = AV_CODEC_ID_H264;
  video->codecpar->width = settings_.width & ~1;
  video->codecpar->height = settings_.height & ~1;
  video->codecpar->bit_rate = settings_.videoBitrate;
  video->avg_frame_rate = {settings_.frameRate, 1};
  const std::vector<uint8_t> avcc = avcDecoderConfiguration(first.sps, first.pps);
  setExtradata(video->codecpar, avcc.data(), avcc.size());
  if (audio_) {
    AVStream* audio = avformat_new_stream(output_, nullptr);
    if (!audio) return Error::internal("out of memory");
    audio->time_base = {1, settings_.audioSampleRate};
    audio->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
    audio->codecpar->codec_id = AV_CODEC_ID_AAC;
    audio->codecpar->sample_rate = settings_.audioSampleRate;
    av_channel_layout_default(&audio->codecpar->ch_layout, settings_.audioChannels);
    audio->codecpar->bit_rate = settings_.audioBitrate;
    audio->codecpar->frame_size = 1024;
    // The encoder's config is known once it has produced a frame; its two bytes follow from the
    // settings anyway.
    if (asc_[0] == 0 && asc_[1] == 0) {
      static constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                       22050, 16000, 12000, 11025, 8000,  7350};
      int index = 15;
      for (int i = 0; i < 13; ++i) {
        if (kRates[i] == settings_.audioSampleRate) index = i;
      }
      asc_ = {static_cast<uint8_t>(0x10 | (index >> 1)),
              static_cast<uint8_t>(((index & 1) << 7) | (settings_.audioChannels << 3))};
    }
    setExtradata(audio->codecpar, asc_.data(), asc_.size());
  }
  AVDictionary* options = nullptr;
  // A fragment at every key frame and every half second: a crash loses at most the last.
  av_dict_set(&options, "movflags", "frag_keyframe+empty_moov+default_base_moof", 0);
  av_dict_set(&options, "frag_duration", "500000", 0);
  output_->flags |= AVFMT_FLAG_FLUSH_PACKETS;
  const int rc = avformat_write_header(output_, &options);
  av_dict_free(&options);
  if (rc < 0) return Error::media("can't start the recording: " + avErrorText(rc));
  headerWritten_ = true;
  return std::nullopt;
}

OptionalError FfmpegMovieWriter::writePacket(int stream, const std::vector<uint8_t>& data,
                                             int64_t pts, bool key) {
  if (av_new_packet(packet_, static_cast<int>(data.size())) < 0) {
    return Error::internal("out of memory");
  }
  memcpy(packet_->data, data.data(), data.size());
  packet_->stream_index = stream;
  const AVRational source =
      stream == kVideoStream ? kVideoTimeBase : AVRational{1, settings_.audioSampleRate};
  packet_->pts = packet_->dts = av_rescale_q(pts, source, output_->streams[stream]->time_base);
  if (stream == kAudioStream)
    packet_->duration = av_rescale_q(1024, source, output_->streams[stream]->time_base);
  if (key) packet_->flags |= AV_PKT_FLAG_KEY;
  const int rc = av_write_frame(output_, packet_);
  av_packet_unref(packet_);
  if (rc < 0) {
    const int code = AVUNERROR(rc);
    if (code == ENOSPC) return Error::file("the disk is full", code);
    return Error::media("can't write the recording: " + avErrorText(rc));
  }
  return std::nullopt;
}

void FfmpegMovieWriter::closeFile() {
  if (!output_) return;
  if (output_->pb) avio_closep(&output_->pb);
  avformat_free_context(output_);
  output_ = nullptr;
}

OptionalError FfmpegMovieWriter::finish() {
  if (finished_) return std::nullopt;
  finished_ = true;
  OptionalError failure;
  if (start_) {
    std::vector<EncodedVideoSample> video;
    failure = video_->flush(video);
    if (!failure) failure = writeVideo(video);
    if (audio_ && !failure && headerWritten_) {
      std::vector<EncodedAudioSample> audio;
      failure = audio_->flush(audio);
      if (!failure) failure = writeAudio(audio);
    }
  }
  if (headerWritten_) {
    const int rc = av_write_trailer(output_);
    if (rc < 0 && !failure)
      failure = Error::media("can't finish the recording: " + avErrorText(rc));
  }
  closeFile();
  const std::string part = moviePartPath(path_);
  if (!headerWritten_) {
    std::remove(part.c_str());
    return failure ? failure : Error::media("nothing was recorded");
  }
  // What is in the part file is kept even when the last writes failed (a full disk).
  OptionalError finishing = ffmpegFinishFragmentedMovie(part, path_);
  return finishing ? finishing : failure;
}

OptionalError ffmpegFinishFragmentedMovie(const std::string& partPath, const std::string& path) {
  std::string openError;
  AvInput input = openAvInput(partPath, openError);
  if (!input) return Error::media("can't read " + partPath + ": " + openError);
  AVFormatContext* raw = nullptr;
  int rc = avformat_alloc_output_context2(&raw, nullptr, "mp4", path.c_str());
  if (rc < 0 || !raw) return Error::internal("can't set up the MP4 muxer");
  std::unique_ptr<AVFormatContext, OutputCloser> output(raw);
  for (unsigned i = 0; i < input->nb_streams; ++i) {
    AVStream* out = avformat_new_stream(output.get(), nullptr);
    if (!out) return Error::internal("out of memory");
    avcodec_parameters_copy(out->codecpar, input->streams[i]->codecpar);
    out->codecpar->codec_tag = 0;
    out->time_base = input->streams[i]->time_base;
  }
  rc = avio_open(&output->pb, path.c_str(), AVIO_FLAG_WRITE);
  if (rc < 0) return Error::file("can't write " + path + ": " + avErrorText(rc), AVUNERROR(rc));
  AVDictionary* options = nullptr;
  av_dict_set(&options, "movflags", "+faststart", 0);
  rc = avformat_write_header(output.get(), &options);
  av_dict_free(&options);
  if (rc < 0) return Error::media("can't write " + path + ": " + avErrorText(rc));
  AvPacket packet(av_packet_alloc());
  size_t copied = 0;
  // A read error is where a killed process stopped writing: what came before is kept.
  while (av_read_frame(input.get(), packet.get()) >= 0) {
    AVStream* in = input->streams[packet->stream_index];
    av_packet_rescale_ts(packet.get(), in->time_base,
                         output->streams[packet->stream_index]->time_base);
    packet->pos = -1;
    rc = av_interleaved_write_frame(output.get(), packet.get());
    av_packet_unref(packet.get());
    if (rc < 0) {
      return Error::file("can't write " + path + ": " + avErrorText(rc), AVUNERROR(rc));
    }
    ++copied;
  }
  rc = av_write_trailer(output.get());
  if (rc < 0) return Error::file("can't finish " + path + ": " + avErrorText(rc), AVUNERROR(rc));
  if (copied == 0) {
    std::remove(path.c_str());
    return Error::media(partPath + " holds no media");
  }
  input.reset();
  std::remove(partPath.c_str());
  return std::nullopt;
}

}  // namespace nembra
