// Raw pictures and PCM from libavdevice inputs: FFmpeg's lavfi test sources, a V4L2 camera and an
// ALSA or PulseAudio microphone. Everything it delivers still needs encoding.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "platform/media/media_backend.h"
#include "platform/media/media_source.h"

struct AVFormatContext;
struct AVCodecContext;
struct AVPacket;

namespace nembra {

// Threading: see MediaSource.
class MediaSourceDevice final : public MediaSource {
 public:
  // testsrc2 pictures of |width| x |height| at |fps| and a sine tone at 44100 Hz, timed by the
  // filter graph (so faster than real time unless paced).
  static std::unique_ptr<MediaSourceDevice> openTestPattern(int width, int height, int fps,
                                                            OptionalError& error);

  // The V4L2 camera |device| (e.g. /dev/video0), asked for |width| x |height| at |fps| when they
  // are not 0, and the default PulseAudio or else ALSA microphone when one opens (a missing
  // microphone is not an error: the stream is then video only). Devices are stamped with the
  // time each item arrives.
  static std::unique_ptr<MediaSourceDevice> openCamera(const std::string& device, int width,
                                                       int height, int fps, OptionalError& error);

  // Pictures only: a V4L2 node (stamped on arrival) or a lavfi graph (timed by the graph).
  static std::unique_ptr<MediaSourceDevice> openVideoCapture(const VideoCaptureRequest& request,
                                                             OptionalError& error);

  // A microphone alone, delivering PCM: "lavfi" is a virtual one (a 440 Hz tone, stereo at
  // 44100 Hz, paced in real time like a device), "" the default PulseAudio source or else ALSA's
  // default, "pulse:NAME" or "alsa:NAME" a named one. Stamped with the time each block arrives.
  static std::unique_ptr<MediaSourceDevice> openMicrophone(const std::string& device,
                                                           OptionalError& error);

  // The whole X11 screen |display| (":0") by x11grab at |fps|, stamped on arrival.
  static std::unique_ptr<MediaSourceDevice> openScreen(const std::string& display, int fps,
                                                       OptionalError& error);
  // The media file |path| decoded into raw pictures and PCM, timed by its own timestamps (so
  // faster than real time unless paced): for files whose samples cannot be sent as they are.
  static std::unique_ptr<MediaSourceDevice> openDecodedFile(const std::string& path,
                                                            OptionalError& error);

  ~MediaSourceDevice() override;

  const MediaSourceInfo& info() const override { return info_; }
  bool read(MediaSourceItem& item, OptionalError& error) override;
  void interrupt() override { interrupted_.store(true); }

 private:
  struct Decoder {
    int streamIndex = -1;
    AVCodecContext* context = nullptr;
    bool video = false;
  };
  struct Input {
    std::string name;
    AVFormatContext* format = nullptr;
    std::vector<Decoder> decoders;
    bool stampOnArrival = false;
    bool ended = false;
    bool drained = false;  // its decoders were flushed at the end of the input
    double lastPts = 0;    // of the newest item it delivered
  };

  MediaSourceDevice();
  OptionalError addInput(const std::string& formatName, const std::string& url,
                         const std::vector<std::pair<std::string, std::string>>& options,
                         bool stampOnArrival, bool nonBlocking);
  // Reads one packet of |input| and decodes it into pending_. Returns AVERROR(EAGAIN) when a
  // non-blocking input has nothing yet, AVERROR_EOF at its end, another negative code on error.
  int pump(Input& input);
  double stamp(const Input& input, const AVCodecContext* context, int64_t timestamp,
               int streamIndex) const;
  void describe();
  // The input to read next: the one furthest behind in media time when every input is timed by
  // its own media clock (so that audio and pictures stay interleaved), else each in turn.
  Input& nextInput();

  static int interruptCallback(void* opaque);

  MediaSourceInfo info_;
  std::vector<Input> inputs_;
  AVPacket* packet_ = nullptr;
  std::deque<RawMediaFrame> pending_;
  size_t nextInput_ = 0;
  std::chrono::steady_clock::time_point opened_;
  bool failed_ = false;
  std::atomic<bool> interrupted_{false};
};

}  // namespace nembra
