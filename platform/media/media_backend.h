// Everything the SDK does with FFmpeg (probing, frame grabs, remuxing, conversion, still images,
// capture devices, media files, encoders) lives in a plug-in, loaded the first time one of
// these is asked for. A process that never touches media never pays for loading FFmpeg and the
// two hundred libraries it brings: publishing a file through the built-in MP4 reader, uploads,
// the local service's REST side.
//
// The plug-in is found, in order: at $NEMBRA_MEDIA_PLUGIN (then nowhere else); beside the running
// executable; when the SDK is a shared library (an installed libnembra), in "nembra/" beside that
// library, then beside it; when the SDK is linked into the executable, in the install's plug-in
// folder seen from the executable ("../lib/nembra"); and, for binaries in the build tree only,
// where the build put it. A process that needs it and cannot load it ends the way a missing
// shared library ends a program: a message on standard error and exit code 127.
//
// Threading: any thread; the first use loads the plug-in once.
#pragma once

#include <memory>
#include <string>

#include "nembra/error.h"
#include "platform/media/audio_pcm_decoder.h"
#include "platform/media/frame_grabber.h"
#include "platform/media/image_codec.h"
#include "platform/media/media_converter.h"
#include "platform/media/media_encoder_audio.h"
#include "platform/media/media_encoder_video.h"
#include "platform/media/media_file_writer.h"
#include "platform/media/media_log.h"
#include "platform/media/media_player_engine.h"
#include "platform/media/media_probe.h"
#include "platform/media/media_remuxer.h"
#include "platform/media/media_source.h"
#include "platform/media/media_trimmer.h"
#include "platform/media/movie_writer.h"
#include "platform/media/raw_frame_converter.h"
#include "platform/media/raw_frame_reader.h"

namespace nembra {

// A picture-only capture: a V4L2 node, or a lavfi filter graph that stands in for a camera.
struct VideoCaptureRequest {
  enum class Kind { V4l2, Lavfi };
  Kind kind = Kind::V4l2;
  std::string device;  // the node ("/dev/video0") or the graph ("testsrc2=size=640x480,realtime")
  int width = 0;       // asked of a V4L2 node when not 0
  int height = 0;
  int fps = 0;
};

// What the plug-in provides. Each factory hands back an object the caller owns.
class MediaBackend {
 public:
  virtual ~MediaBackend() = default;

  virtual std::unique_ptr<MediaProbe> makeMediaProbe() = 0;
  virtual std::unique_ptr<FrameGrabber> makeFrameGrabber() = 0;
  virtual std::unique_ptr<MediaRemuxer> makeMediaRemuxer() = 0;
  virtual std::unique_ptr<MediaConverter> makeMediaConverter() = 0;
  virtual std::unique_ptr<MediaTrimmer> makeMediaTrimmer() = 0;
  virtual std::unique_ptr<ImageCodec> makeImageCodec() = 0;
  virtual std::unique_ptr<AudioPcmDecoder> makeAudioPcmDecoder() = 0;
  virtual std::unique_ptr<MediaPlayerEngine> makePlayerEngine(MediaPlayerEngineOptions options) = 0;

  virtual std::unique_ptr<MediaSource> openFile(const std::string& path, OptionalError& error) = 0;
  virtual std::unique_ptr<MediaSource> openTestPattern(int width, int height, int fps,
                                                       OptionalError& error) = 0;
  virtual std::unique_ptr<MediaSource> openCamera(const std::string& device, int width, int height,
                                                  int fps, OptionalError& error) = 0;
  // PCM from a microphone: "lavfi" (a virtual tone paced in real time), "" (the default
  // PulseAudio source, else ALSA's default), "pulse:NAME" or "alsa:NAME".
  virtual std::unique_ptr<MediaSource> openMicrophone(const std::string& device,
                                                      OptionalError& error) = 0;
  virtual std::unique_ptr<MediaSource> openDecodedFile(const std::string& path,
                                                       OptionalError& error) = 0;

  virtual std::unique_ptr<MediaSource> openVideoCapture(const VideoCaptureRequest& request,
                                                        OptionalError& error) = 0;
  virtual std::unique_ptr<RawFrameReader> makeRawFrameReader() = 0;

  virtual std::unique_ptr<VideoEncoder> createH264Encoder(const VideoEncoderSettings& settings,
                                                          OptionalError& error) = 0;
  virtual std::unique_ptr<AudioEncoder> createAacEncoder(const AudioEncoderSettings& settings,
                                                         OptionalError& error) = 0;
  virtual std::unique_ptr<MediaFileWriter> createFileWriter(const MediaFileWriterSettings& settings,
                                                            OptionalError& error) = 0;
  // X11 screen |display| (":0") grabbed whole at |fps| by x11grab, stamped on arrival.
  virtual std::unique_ptr<MediaSource> openScreen(const std::string& display, int fps,
                                                  OptionalError& error) = 0;

  // The recorder's asset writer and the finishing of a recording a killed process left
  // (movie_writer.h).
  virtual std::unique_ptr<MovieWriter> createMovieWriter(const std::string& path,
                                                         const MovieWriterSettings& settings,
                                                         OptionalError& error) = 0;
  virtual OptionalError finishInterruptedMovie(const std::string& path) = 0;
  virtual std::unique_ptr<RawFrameConverter> makeRawFrameConverter() = 0;

  virtual OptionalError writeVideoSample(const std::string& path, double seconds, int width,
                                         int height) = 0;
  virtual OptionalError writeAudioSample(const std::string& path, double seconds) = 0;
  virtual OptionalError writePictureSample(const std::string& path, int width, int height) = 0;

  virtual void setLogLevel(MediaLogLevel level) = 0;

  // The plug-in, loaded on first use.
  static MediaBackend& shared();
  // Whether shared() has loaded it already (a level set before is applied at load).
  static bool loaded();
};

// FFmpeg's testsrc2 pictures and a beeping sine tone, timed by the filter graph.
std::unique_ptr<MediaSource> openTestPatternSource(int width, int height, int fps,
                                                   OptionalError& error);
// A V4L2 camera with the default PulseAudio or ALSA microphone when one opens.
std::unique_ptr<MediaSource> openCameraSource(const std::string& device, int width, int height,
                                              int fps, OptionalError& error);
// A microphone alone (see MediaBackend::openMicrophone).
std::unique_ptr<MediaSource> openMicrophoneSource(const std::string& device, OptionalError& error);
// The screen grab and the file writer (see MediaBackend).
std::unique_ptr<MediaSource> openScreenSource(const std::string& display, int fps,
                                              OptionalError& error);
std::unique_ptr<MediaFileWriter> createMediaFileWriter(const MediaFileWriterSettings& settings,
                                                       OptionalError& error);
// A media file decoded into raw pictures and PCM, for publishing through the encoders (a file
// whose video cannot pass through as it is, such as one with B-frames).
std::unique_ptr<MediaSource> openDecodedFileSource(const std::string& path, OptionalError& error);
// libx264 and FFmpeg's AAC encoder with the settings live publishing needs.
std::unique_ptr<VideoEncoder> createH264Encoder(const VideoEncoderSettings& settings,
                                                OptionalError& error);
std::unique_ptr<AudioEncoder> createAacEncoder(const AudioEncoderSettings& settings,
                                               OptionalError& error);

}  // namespace nembra

// The plug-in's one exported symbol: its backend, alive as long as the process.
extern "C" nembra::MediaBackend* nembra_media_backend();
