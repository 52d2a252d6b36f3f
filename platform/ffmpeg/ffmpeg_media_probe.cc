#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_media_backend.h"
#include "platform/media/media_probe.h"

namespace nembra {
namespace {

class FfmpegMediaProbe final : public MediaProbe {
 public:
  OptionalError probe(const std::string& path, MediaProbeResult& result) override {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
      return Error::file("cannot read " + path + ": " + std::strerror(errno), errno);
    }
    std::string openError;
    AvInput input = openAvInput(path, openError);
    if (!input) return Error::media("not a media file (" + openError + ")");

    MediaProbeResult found;
    found.container = input->iformat ? input->iformat->name : "";
    int video = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (video >= 0) {
      const AVStream* stream = input->streams[video];
      // Cover art inside an audio file is a still, not a picture track.
      if (!(stream->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
        found.hasVideo = true;
        found.rotation = avStreamRotation(stream);
        found.width = stream->codecpar->width;
        found.height = stream->codecpar->height;
        if (found.rotation == 90 || found.rotation == 270) std::swap(found.width, found.height);
        found.videoCodec = avcodec_get_name(stream->codecpar->codec_id);
      }
    }
    int audio = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (audio >= 0) {
      found.hasAudio = true;
      found.audioCodec = avcodec_get_name(input->streams[audio]->codecpar->codec_id);
    }
    if (!found.hasVideo && !found.hasAudio) {
      return Error::media("no audio or picture track in " + path);
    }
    if (input->duration != AV_NOPTS_VALUE && input->duration > 0) {
      found.duration = static_cast<double>(input->duration) / AV_TIME_BASE;
    } else {
      for (unsigned i = 0; i < input->nb_streams; ++i) {
        const AVStream* stream = input->streams[i];
        if (stream->duration == AV_NOPTS_VALUE || stream->duration <= 0) continue;
        found.duration = std::max(found.duration, stream->duration * av_q2d(stream->time_base));
      }
    }
    result = found;
    return std::nullopt;
  }
};

}  // namespace

std::unique_ptr<MediaProbe> newFfmpegMediaProbe() { return std::make_unique<FfmpegMediaProbe>(); }

}  // namespace nembra
