#include "platform/media/media_backend.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <vector>

#include "platform/media/media_sample_writer.h"

namespace nembra {

namespace {

constexpr const char* kPluginFile = "libnembra_media_ffmpeg.so";
constexpr const char* kEntryPoint = "nembra_media_backend";

std::atomic<MediaBackend*> loadedBackend{nullptr};
std::atomic<int> requestedLogLevel{-1};  // a MediaLogLevel set before loading, -1 for none

std::vector<std::string> pluginCandidates() {
  if (const char* explicitPath = std::getenv("NEMBRA_MEDIA_PLUGIN");
      explicitPath && *explicitPath) {
    return {explicitPath};  // an explicit choice is the only one
  }
  std::vector<std::string> candidates;
  std::error_code error;
  const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error) candidates.push_back((executable.parent_path() / kPluginFile).string());
#ifdef NEMBRA_MEDIA_PLUGIN_PATH
  candidates.push_back(NEMBRA_MEDIA_PLUGIN_PATH);
#endif
  return candidates;
}

[[noreturn]] void cannotLoad(const std::string& reasons) {
  std::fprintf(stderr, "nembra: cannot load the media plug-in %s:%s\n", kPluginFile,
               reasons.c_str());
  std::fflush(stderr);
  std::_Exit(127);
}

MediaBackend* load() {
  std::string reasons;
  for (const std::string& path : pluginCandidates()) {
    if (::access(path.c_str(), R_OK) != 0) {
      reasons += "\n  " + path + ": not there";
      continue;
    }
    // Never unloaded: objects it made may live until the process ends.
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
      reasons += "\n  " + std::string(::dlerror());
      continue;
    }
    auto entry = reinterpret_cast<MediaBackend* (*)()>(::dlsym(handle, kEntryPoint));
    if (!entry) {
      reasons += "\n  " + path + ": no " + kEntryPoint;
      continue;
    }
    return entry();
  }
  cannotLoad(reasons);
}

}  // namespace

MediaBackend& MediaBackend::shared() {
  static std::once_flag once;
  std::call_once(once, [] {
    MediaBackend* backend = load();
    loadedBackend.store(backend);
    if (int level = requestedLogLevel.load(); level >= 0) {
      backend->setLogLevel(static_cast<MediaLogLevel>(level));
    }
  });
  return *loadedBackend.load();
}

bool MediaBackend::loaded() { return loadedBackend.load() != nullptr; }

void setMediaLogLevel(MediaLogLevel level) {
  requestedLogLevel.store(static_cast<int>(level));
  if (MediaBackend* backend = loadedBackend.load()) backend->setLogLevel(level);
}

std::unique_ptr<MediaProbe> makeMediaProbe() { return MediaBackend::shared().makeMediaProbe(); }
std::unique_ptr<FrameGrabber> makeFrameGrabber() {
  return MediaBackend::shared().makeFrameGrabber();
}
std::unique_ptr<MediaRemuxer> makeMediaRemuxer() {
  return MediaBackend::shared().makeMediaRemuxer();
}
std::unique_ptr<MediaConverter> makeMediaConverter() {
  return MediaBackend::shared().makeMediaConverter();
}
std::unique_ptr<ImageCodec> makeImageCodec() { return MediaBackend::shared().makeImageCodec(); }

std::unique_ptr<MediaPlayerEngine> makeMediaPlayerEngine(MediaPlayerEngineOptions options) {
  return MediaBackend::shared().makePlayerEngine(std::move(options));
}

std::unique_ptr<MediaSource> openTestPatternSource(int width, int height, int fps,
                                                   OptionalError& error) {
  return MediaBackend::shared().openTestPattern(width, height, fps, error);
}
std::unique_ptr<MediaSource> openCameraSource(const std::string& device, int width, int height,
                                              int fps, OptionalError& error) {
  return MediaBackend::shared().openCamera(device, width, height, fps, error);
}
std::unique_ptr<VideoEncoder> createH264Encoder(const VideoEncoderSettings& settings,
                                                OptionalError& error) {
  return MediaBackend::shared().createH264Encoder(settings, error);
}
std::unique_ptr<AudioEncoder> createAacEncoder(const AudioEncoderSettings& settings,
                                               OptionalError& error) {
  return MediaBackend::shared().createAacEncoder(settings, error);
}

OptionalError MediaSampleWriter::writeVideo(const std::string& path, double seconds, int width,
                                            int height) {
  return MediaBackend::shared().writeVideoSample(path, seconds, width, height);
}
OptionalError MediaSampleWriter::writeAudio(const std::string& path, double seconds) {
  return MediaBackend::shared().writeAudioSample(path, seconds);
}
OptionalError MediaSampleWriter::writePicture(const std::string& path, int width, int height) {
  return MediaBackend::shared().writePictureSample(path, width, height);
}

}  // namespace nembra
