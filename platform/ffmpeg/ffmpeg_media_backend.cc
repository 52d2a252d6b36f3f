// The media plug-in's entry point: MediaBackend over the FFmpeg implementations.
#include "platform/ffmpeg/ffmpeg_media_backend.h"

extern "C" {
#include <libavutil/log.h>
}

#include "platform/ffmpeg/ffmpeg_aac_encoder.h"
#include "platform/ffmpeg/ffmpeg_device_source.h"
#include "platform/ffmpeg/ffmpeg_file_source.h"
#include "platform/ffmpeg/ffmpeg_file_writer.h"
#include "platform/ffmpeg/ffmpeg_movie_writer.h"
#include "platform/ffmpeg/ffmpeg_player_engine.h"
#include "platform/ffmpeg/ffmpeg_raw_frame_converter.h"
#include "platform/ffmpeg/ffmpeg_raw_frame_reader.h"
#include "platform/ffmpeg/ffmpeg_x264_encoder.h"
#include "platform/media/media_backend.h"

namespace nembra {

namespace {

class FfmpegMediaBackend final : public MediaBackend {
 public:
  std::unique_ptr<MediaProbe> makeMediaProbe() override { return newFfmpegMediaProbe(); }
  std::unique_ptr<FrameGrabber> makeFrameGrabber() override { return newFfmpegFrameGrabber(); }
  std::unique_ptr<MediaRemuxer> makeMediaRemuxer() override { return newFfmpegMediaRemuxer(); }
  std::unique_ptr<MediaConverter> makeMediaConverter() override {
    return newFfmpegMediaConverter();
  }
  std::unique_ptr<MediaTrimmer> makeMediaTrimmer() override { return newFfmpegMediaTrimmer(); }
  std::unique_ptr<ImageCodec> makeImageCodec() override { return newFfmpegImageCodec(); }
  std::unique_ptr<AudioPcmDecoder> makeAudioPcmDecoder() override {
    return newFfmpegAudioPcmDecoder();
  }
  std::unique_ptr<MediaPlayerEngine> makePlayerEngine(MediaPlayerEngineOptions options) override {
    return std::make_unique<player::PlayerEngine>(std::move(options));
  }

  std::unique_ptr<MediaSource> openFile(const std::string& path, OptionalError& error) override {
    return MediaSourceFile::open(path, error);
  }
  std::unique_ptr<MediaSource> openTestPattern(int width, int height, int fps,
                                               OptionalError& error) override {
    return MediaSourceDevice::openTestPattern(width, height, fps, error);
  }
  std::unique_ptr<MediaSource> openCamera(const std::string& device, int width, int height, int fps,
                                          OptionalError& error) override {
    return MediaSourceDevice::openCamera(device, width, height, fps, error);
  }
  std::unique_ptr<MediaSource> openVideoCapture(const VideoCaptureRequest& request,
                                                OptionalError& error) override {
    return MediaSourceDevice::openVideoCapture(request, error);
  }
  std::unique_ptr<RawFrameReader> makeRawFrameReader() override {
    return std::make_unique<FfmpegRawFrameReader>();
  }
  std::unique_ptr<MediaSource> openMicrophone(const std::string& device,
                                              OptionalError& error) override {
    return MediaSourceDevice::openMicrophone(device, error);
  }
  std::unique_ptr<MediaSource> openDecodedFile(const std::string& path,
                                               OptionalError& error) override {
    return MediaSourceDevice::openDecodedFile(path, error);
  }

  std::unique_ptr<VideoEncoder> createH264Encoder(const VideoEncoderSettings& settings,
                                                  OptionalError& error) override {
    return MediaEncoderX264::create(settings, error);
  }
  std::unique_ptr<AudioEncoder> createAacEncoder(const AudioEncoderSettings& settings,
                                                 OptionalError& error) override {
    return MediaEncoderAAC::create(settings, error);
  }
  std::unique_ptr<MediaFileWriter> createFileWriter(const MediaFileWriterSettings& settings,
                                                    OptionalError& error) override {
    return FfmpegFileWriter::create(settings, error);
  }
  std::unique_ptr<MediaSource> openScreen(const std::string& display, int fps,
                                          OptionalError& error) override {
    return MediaSourceDevice::openScreen(display, fps, error);
  }

  std::unique_ptr<MovieWriter> createMovieWriter(const std::string& path,
                                                 const MovieWriterSettings& settings,
                                                 OptionalError& error) override {
    return FfmpegMovieWriter::create(path, settings, error);
  }
  OptionalError finishInterruptedMovie(const std::string& path) override {
    return ffmpegFinishFragmentedMovie(moviePartPath(path), path);
  }
  std::unique_ptr<RawFrameConverter> makeRawFrameConverter() override {
    return std::make_unique<FfmpegRawFrameConverter>();
  }

  OptionalError writeVideoSample(const std::string& path, double seconds, int width,
                                 int height) override {
    return ffmpegWriteVideoSample(path, seconds, width, height);
  }
  OptionalError writeAudioSample(const std::string& path, double seconds) override {
    return ffmpegWriteAudioSample(path, seconds);
  }
  OptionalError writePictureSample(const std::string& path, int width, int height) override {
    return ffmpegWritePictureSample(path, width, height);
  }

  void setLogLevel(MediaLogLevel level) override {
    switch (level) {
      case MediaLogLevel::Quiet:
        av_log_set_level(AV_LOG_QUIET);
        break;
      case MediaLogLevel::Errors:
        av_log_set_level(AV_LOG_ERROR);
        break;
      case MediaLogLevel::Warnings:
        av_log_set_level(AV_LOG_WARNING);
        break;
      case MediaLogLevel::Info:
        av_log_set_level(AV_LOG_INFO);
        break;
    }
  }
};

}  // namespace

}  // namespace nembra

extern "C" __attribute__((visibility("default"))) nembra::MediaBackend* nembra_media_backend() {
  static nembra::FfmpegMediaBackend backend;
  return &backend;
}
