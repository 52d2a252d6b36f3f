#include "platform/media/media_backend.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/media/media_sample_writer.h"

namespace nembra {

namespace {

constexpr const char* kPluginFile = "libnembra_media_ffmpeg.so";
constexpr const char* kEntryPoint = "nembra_media_backend";

std::atomic<MediaBackend*> loadedBackend{nullptr};
std::atomic<int> requestedLogLevel{-1};  // a MediaLogLevel set before loading, -1 for none

// The canonical path of the shared library the SDK's code was loaded from (an installed
// libnembra), or nothing when the SDK is linked into the executable itself.
std::optional<std::filesystem::path> sdkLibraryPath() {
  Dl_info info{};
  link_map* map = nullptr;
  if (::dladdr1(&loadedBackend, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0 ||
      map == nullptr || map->l_name == nullptr || map->l_name[0] == '\0') {
    return std::nullopt;  // the main program's map has no name
  }
  std::error_code error;
  auto path = std::filesystem::canonical(map->l_name, error);
  if (error) return std::nullopt;
  return path;
}

#ifdef NEMBRA_MEDIA_PLUGIN_PATH
// Whether |image| lies in the build tree the SDK was built in: only binaries there may take the
// plug-in the build made, never an installed copy.
bool inBuildTree(const std::filesystem::path& image) {
  std::error_code error;
  const auto buildDir = std::filesystem::canonical(NEMBRA_BUILD_DIR, error);
  if (error) return false;
  const std::string prefix = buildDir.string() + "/";
  return image.string().compare(0, prefix.size(), prefix) == 0;
}
#endif

std::vector<std::string> pluginCandidates() {
  if (const char* explicitPath = std::getenv("NEMBRA_MEDIA_PLUGIN");
      explicitPath && *explicitPath) {
    return {explicitPath};  // an explicit choice is the only one
  }
  std::vector<std::string> candidates;
  std::error_code error;
  const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error) candidates.push_back((executable.parent_path() / kPluginFile).string());
  const std::optional<std::filesystem::path> library = sdkLibraryPath();
  if (library) {
    // An installed libnembra: the plug-in in its own folder beside it, or beside it.
    const auto directory = library->parent_path();
    candidates.push_back((directory / NEMBRA_MEDIA_PLUGIN_LIBDIR_SUBDIR / kPluginFile).string());
    candidates.push_back((directory / kPluginFile).string());
  } else if (!error) {
    // The SDK linked into an installed program (the `nembra` tool): the install's plug-in folder.
    candidates.push_back((executable.parent_path() / NEMBRA_MEDIA_PLUGIN_FROM_BINDIR / kPluginFile)
                             .lexically_normal()
                             .string());
  }
#ifdef NEMBRA_MEDIA_PLUGIN_PATH
  if (library ? inBuildTree(*library) : !error && inBuildTree(executable)) {
    candidates.push_back(NEMBRA_MEDIA_PLUGIN_PATH);
  }
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
std::unique_ptr<MediaTrimmer> makeMediaTrimmer() {
  return MediaBackend::shared().makeMediaTrimmer();
}
std::unique_ptr<ImageCodec> makeImageCodec() { return MediaBackend::shared().makeImageCodec(); }
std::unique_ptr<AudioPcmDecoder> makeAudioPcmDecoder() {
  return MediaBackend::shared().makeAudioPcmDecoder();
}

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
std::unique_ptr<MediaSource> openMicrophoneSource(const std::string& device, OptionalError& error) {
  return MediaBackend::shared().openMicrophone(device, error);
}
std::unique_ptr<MediaSource> openScreenSource(const std::string& display, int fps,
                                              OptionalError& error) {
  return MediaBackend::shared().openScreen(display, fps, error);
}
std::unique_ptr<MediaFileWriter> createMediaFileWriter(const MediaFileWriterSettings& settings,
                                                       OptionalError& error) {
  return MediaBackend::shared().createFileWriter(settings, error);
}
std::unique_ptr<MediaSource> openDecodedFileSource(const std::string& path, OptionalError& error) {
  return MediaBackend::shared().openDecodedFile(path, error);
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
