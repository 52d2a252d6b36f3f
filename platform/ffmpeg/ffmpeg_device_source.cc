#include "platform/ffmpeg/ffmpeg_device_source.h"

#include <dlfcn.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <thread>

#include "platform/ffmpeg/ffmpeg_av_support.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavdevice/version.h>
#include <libavformat/avformat.h>
}

namespace nembra {

namespace {

constexpr auto kIdlePoll = std::chrono::milliseconds(2);

// The device library is loaded only when a device is opened: it drags in the filter library
// and its dependencies, some 17 MB resident, which a process that only plays never needs.
void registerDevices() {
  static std::once_flag once;
  std::call_once(once, [] {
    const std::string name = "libavdevice.so." + std::to_string(LIBAVDEVICE_VERSION_MAJOR);
    // Kept loaded for the life of the process: the formats it registers point into it.
    void* library = ::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) return;  // then opening a device fails as an unknown input format
    if (auto registerAll = reinterpret_cast<void (*)()>(::dlsym(library, "avdevice_register_all")))
      registerAll();
  });
}

}  // namespace

MediaSourceDevice::MediaSourceDevice() : opened_(std::chrono::steady_clock::now()) {}

MediaSourceDevice::~MediaSourceDevice() {
  for (Input& input : inputs_) {
    for (Decoder& decoder : input.decoders) avcodec_free_context(&decoder.context);
    avformat_close_input(&input.format);
  }
  av_packet_free(&packet_);
}

int MediaSourceDevice::interruptCallback(void* opaque) {
  return static_cast<MediaSourceDevice*>(opaque)->interrupted_.load() ? 1 : 0;
}

std::unique_ptr<MediaSourceDevice> MediaSourceDevice::openTestPattern(int width, int height,
                                                                      int fps,
                                                                      OptionalError& error) {
  std::unique_ptr<MediaSourceDevice> source(new MediaSourceDevice());
  if (width <= 0 || height <= 0 || fps <= 0) {
    error = Error::invalidArgument("test pattern needs a positive size and frame rate");
    return nullptr;
  }
  // Pictures and a tone that beeps once a second, so that audio and video drift would be visible
  // in a recording. Two graphs rather than one with two outputs: FFmpeg's lavfi input leaks the
  // frames it peeked at when a multi-output graph is closed.
  const std::string pictures = "testsrc2=size=" + std::to_string(width) + "x" +
                               std::to_string(height) + ":rate=" + std::to_string(fps);
  error = source->addInput("lavfi", pictures, {}, false, false);
  if (!error)
    error = source->addInput("lavfi", "sine=frequency=440:beep_factor=4:sample_rate=44100", {},
                             false, false);
  if (error) return nullptr;
  source->describe();
  source->info_.description = "lavfi testsrc2+sine";
  return source;
}

std::unique_ptr<MediaSourceDevice> MediaSourceDevice::openCamera(const std::string& device,
                                                                 int width, int height, int fps,
                                                                 OptionalError& error) {
  std::unique_ptr<MediaSourceDevice> source(new MediaSourceDevice());
  std::vector<std::pair<std::string, std::string>> options;
  if (width > 0 && height > 0) {
    options.emplace_back("video_size", std::to_string(width) + "x" + std::to_string(height));
  }
  if (fps > 0) options.emplace_back("framerate", std::to_string(fps));
  error = source->addInput("v4l2", device, options, true, true);
  if (error) return nullptr;
  // The microphone is optional: the first backend that opens wins.
  for (const char* backend : {"pulse", "alsa"}) {
    if (!source->addInput(backend, "default", {{"sample_rate", "44100"}, {"channels", "2"}}, true,
                          true)) {
      break;
    }
  }
  source->describe();
  source->info_.description = "camera " + device;
  return source;
}

std::unique_ptr<MediaSourceDevice> MediaSourceDevice::openVideoCapture(
    const VideoCaptureRequest& request, OptionalError& error) {
  std::unique_ptr<MediaSourceDevice> source(new MediaSourceDevice());
  const bool v4l2 = request.kind == VideoCaptureRequest::Kind::V4l2;
  std::vector<std::pair<std::string, std::string>> options;
  if (v4l2 && request.width > 0 && request.height > 0) {
    options.emplace_back("video_size",
                         std::to_string(request.width) + "x" + std::to_string(request.height));
  }
  if (v4l2 && request.fps > 0) options.emplace_back("framerate", std::to_string(request.fps));
  error = source->addInput(v4l2 ? "v4l2" : "lavfi", request.device, options, v4l2, v4l2);
  if (error) return nullptr;
  source->describe();
  if (!source->info_.hasVideo) {
    error = Error::media(request.device + " gives no pictures");
    return nullptr;
  }
  source->info_.hasAudio = false;
  source->info_.description = (v4l2 ? "camera " : "lavfi ") + request.device;
  return source;
}

std::unique_ptr<MediaSourceDevice> MediaSourceDevice::openMicrophone(const std::string& device,
                                                                     OptionalError& error) {
  std::unique_ptr<MediaSourceDevice> source(new MediaSourceDevice());
  const std::vector<std::pair<std::string, std::string>> options = {{"sample_rate", "44100"},
                                                                    {"channels", "2"}};
  if (device == "lavfi") {
    // arealtime holds each block back until its media time, as a sound card would.
    error = source->addInput("lavfi",
                             "sine=frequency=440:sample_rate=44100,"
                             "aformat=sample_fmts=s16:channel_layouts=stereo,arealtime",
                             {}, true, false);
  } else if (device.empty()) {
    OptionalError pulse = source->addInput("pulse", "default", options, true, true);
    if (pulse) {
      OptionalError alsa = source->addInput("alsa", "default", options, true, true);
      if (alsa) {
        error = Error::media("no microphone: neither PulseAudio nor ALSA has a default source (" +
                             pulse->message + "; " + alsa->message + ")");
      }
    }
  } else if (device.starts_with("pulse:") || device.starts_with("alsa:")) {
    const size_t colon = device.find(':');
    error =
        source->addInput(device.substr(0, colon), device.substr(colon + 1), options, true, true);
    if (error) error = Error::media("no microphone " + device + ": " + error->message);
  } else {
    error = Error::invalidArgument("unknown microphone \"" + device +
                                   "\" (use lavfi, pulse:NAME or alsa:NAME)");
  }
  if (error) return nullptr;
  source->describe();
  if (!source->info_.hasAudio) {
    error = Error::media("microphone " + device + " delivers no audio");
    return nullptr;
  }
  source->info_.description = "microphone " + (device.empty() ? std::string("default") : device);
  return source;
}

std::unique_ptr<MediaSourceDevice> MediaSourceDevice::openScreen(const std::string& display,
                                                                 int fps, OptionalError& error) {
  std::unique_ptr<MediaSourceDevice> source(new MediaSourceDevice());
  if (display.empty()) {
    error = Error::invalidArgument("no X11 display to record (set DISPLAY or name one)");
    return nullptr;
  }
  error = source->addInput("x11grab", display,
                           {{"framerate", std::to_string(fps > 0 ? fps : 30)}, {"draw_mouse", "1"}},
                           true, false);
  if (error) {
    error = Error::media("can't record the screen of display " + display + ": " + error->message);
    return nullptr;
  }
  source->describe();
  source->info_.description = "screen " + display;
  return source;
}

std::unique_ptr<MediaSourceDevice> MediaSourceDevice::openDecodedFile(const std::string& path,
                                                                      OptionalError& error) {
  std::unique_ptr<MediaSourceDevice> source(new MediaSourceDevice());
  error = source->addInput("", path, {}, false, false);
  if (error) return nullptr;
  source->describe();
  source->info_.description = "file " + path + " (re-encoded)";
  return source;
}

OptionalError MediaSourceDevice::addInput(
    const std::string& formatName, const std::string& url,
    const std::vector<std::pair<std::string, std::string>>& options, bool stampOnArrival,
    bool nonBlocking) {
  registerDevices();
  // No name: FFmpeg tells the format from the file.
  const AVInputFormat* format =
      formatName.empty() ? nullptr : av_find_input_format(formatName.c_str());
  if (!format && !formatName.empty()) {
    return Error::media("this FFmpeg has no " + formatName + " input");
  }
  if (!packet_) packet_ = av_packet_alloc();

  Input input;
  input.name = formatName.empty() ? url : formatName + " " + url;
  input.stampOnArrival = stampOnArrival;
  input.format = avformat_alloc_context();
  if (!input.format || !packet_) return Error::internal("out of memory opening " + input.name);
  input.format->interrupt_callback = {&MediaSourceDevice::interruptCallback, this};
  if (nonBlocking) input.format->flags |= AVFMT_FLAG_NONBLOCK;
  AVDictionary* dictionary = nullptr;
  for (const auto& [key, value] : options) av_dict_set(&dictionary, key.c_str(), value.c_str(), 0);
  int rc = avformat_open_input(&input.format, url.c_str(), format, &dictionary);
  av_dict_free(&dictionary);
  if (rc < 0) return Error::media("can't open " + input.name + ": " + avErrorText(rc));
  // From here |input| owns the context; a failure below must close it.
  auto fail = [&input](Error error) {
    for (Decoder& decoder : input.decoders) avcodec_free_context(&decoder.context);
    avformat_close_input(&input.format);
    return error;
  };
  rc = avformat_find_stream_info(input.format, nullptr);
  if (rc < 0) return fail(Error::media("can't read " + input.name + ": " + avErrorText(rc)));

  for (unsigned i = 0; i < input.format->nb_streams; ++i) {
    const AVCodecParameters* par = input.format->streams[i]->codecpar;
    if (par->codec_type != AVMEDIA_TYPE_VIDEO && par->codec_type != AVMEDIA_TYPE_AUDIO) continue;
    const AVCodec* codec = avcodec_find_decoder(par->codec_id);
    if (!codec) {
      return fail(Error::media("no decoder for " + std::string(avcodec_get_name(par->codec_id)) +
                               " from " + input.name));
    }
    Decoder decoder;
    decoder.streamIndex = static_cast<int>(i);
    decoder.video = par->codec_type == AVMEDIA_TYPE_VIDEO;
    decoder.context = avcodec_alloc_context3(codec);
    if (!decoder.context) return fail(Error::internal("out of memory opening " + input.name));
    input.decoders.push_back(decoder);
    avcodec_parameters_to_context(decoder.context, par);
    decoder.context->pkt_timebase = input.format->streams[i]->time_base;
    rc = avcodec_open2(decoder.context, codec, nullptr);
    if (rc < 0) {
      return fail(Error::media("can't decode " + input.name + ": " + avErrorText(rc)));
    }
  }
  if (input.decoders.empty()) return fail(Error::media(input.name + " has no video or audio"));
  inputs_.push_back(std::move(input));
  return std::nullopt;
}

void MediaSourceDevice::describe() {
  for (const Input& input : inputs_) {
    for (const Decoder& decoder : input.decoders) {
      AVStream* stream = input.format->streams[decoder.streamIndex];
      if (decoder.video && !info_.hasVideo) {
        info_.hasVideo = true;
        info_.width = decoder.context->width;
        info_.height = decoder.context->height;
        const AVRational rate = av_guess_frame_rate(input.format, stream, nullptr);
        info_.frameRate = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0.0;
      } else if (!decoder.video && !info_.hasAudio) {
        info_.hasAudio = true;
        info_.sampleRate = decoder.context->sample_rate;
        info_.channels = decoder.context->ch_layout.nb_channels;
      }
    }
  }
}

double MediaSourceDevice::stamp(const Input& input, const AVCodecContext* context,
                                int64_t timestamp, int streamIndex) const {
  if (input.stampOnArrival || timestamp == AV_NOPTS_VALUE) {
    // Devices stamp with clocks of their own (and two devices with two clocks): the arrival
    // time is the one clock they share.
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - opened_).count();
  }
  (void)context;
  return static_cast<double>(timestamp) * av_q2d(input.format->streams[streamIndex]->time_base);
}

int MediaSourceDevice::pump(Input& input) {
  int rc = av_read_frame(input.format, packet_);
  // At the end, the decoders give up the frames they held back for reordering, once.
  const bool draining = rc == AVERROR_EOF && !input.drained;
  if (rc < 0 && !draining) return rc;
  input.drained = input.drained || draining;
  struct Unref {
    AVPacket* packet;
    ~Unref() { av_packet_unref(packet); }
  } unref{packet_};
  for (Decoder& decoder : input.decoders) {
    if (!draining && decoder.streamIndex != packet_->stream_index) continue;
    rc = avcodec_send_packet(decoder.context, draining ? nullptr : packet_);
    if (rc < 0) return rc;
    for (;;) {
      AVFrame* frame = av_frame_alloc();
      if (!frame) return AVERROR(ENOMEM);
      rc = avcodec_receive_frame(decoder.context, frame);
      if (rc < 0) {
        av_frame_free(&frame);
        return rc == AVERROR(EAGAIN) || rc == AVERROR_EOF ? 0 : rc;
      }
      const double pts =
          stamp(input, decoder.context, frame->best_effort_timestamp, decoder.streamIndex);
      pending_.push_back(wrapAvFrame(
          decoder.video ? RawMediaFrame::Kind::Video : RawMediaFrame::Kind::Audio, frame, pts));
      input.lastPts = pts;
    }
  }
  return 0;
}

MediaSourceDevice::Input& MediaSourceDevice::nextInput() {
  const bool mediaTimed = std::none_of(inputs_.begin(), inputs_.end(),
                                       [](const Input& input) { return input.stampOnArrival; });
  if (mediaTimed) {
    Input* behind = nullptr;
    for (Input& input : inputs_) {
      if (!input.ended && (!behind || input.lastPts < behind->lastPts)) behind = &input;
    }
    if (behind) return *behind;
  }
  Input& input = inputs_[nextInput_];
  nextInput_ = (nextInput_ + 1) % inputs_.size();
  return input;
}

bool MediaSourceDevice::read(MediaSourceItem& item, OptionalError& error) {
  while (!failed_) {
    if (interrupted_.load()) {
      error = Error::cancelled("capture interrupted");
      failed_ = true;
      break;
    }
    if (!pending_.empty()) {
      item = std::move(pending_.front());
      pending_.pop_front();
      return true;
    }
    bool anyOpen = false;
    bool anyProgress = false;
    for (size_t n = 0; n < inputs_.size() && pending_.empty(); ++n) {
      Input& input = nextInput();
      if (input.ended) continue;
      anyOpen = true;
      const int rc = pump(input);
      if (rc == AVERROR(EAGAIN)) continue;
      if (rc == AVERROR_EOF) {
        input.ended = true;
        continue;
      }
      if (rc < 0) {
        error = interrupted_.load()
                    ? Error::cancelled("capture interrupted")
                    : Error::media("can't read " + input.name + ": " + avErrorText(rc));
        failed_ = true;
        return false;
      }
      anyProgress = true;
    }
    if (!anyOpen && pending_.empty()) {
      failed_ = true;  // every input ended
      break;
    }
    if (!anyProgress && pending_.empty()) std::this_thread::sleep_for(kIdlePoll);
  }
  return false;
}

}  // namespace nembra
