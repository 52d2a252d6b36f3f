// Test media made on demand with the ffmpeg program, for the media classes' tests. Header-only:
// it is shared by test files and must not become part of the platform library.
#pragma once

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/system/child_process.h"

namespace nembra::testing {

// A directory of generated files, removed with its contents at destruction.
class MediaTestFiles {
 public:
  MediaTestFiles()
      : dir_(std::filesystem::temp_directory_path() /
             ("nembra-media-" + std::to_string(::getpid()) + "-" + std::to_string(counter()++))) {
    std::filesystem::create_directories(dir_);
  }
  ~MediaTestFiles() {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  static bool haveFfmpeg() {
    for (const char* dir : {"/usr/bin", "/usr/local/bin", "/bin"}) {
      if (::access((std::string(dir) + "/ffmpeg").c_str(), X_OK) == 0) return true;
    }
    return false;
  }

  std::string path(const std::string& name) const { return (dir_ / name).string(); }

  // Runs ffmpeg -y ARGS... NAME; the path on success, "" otherwise.
  std::string make(const std::string& name, const std::vector<std::string>& args) {
    std::vector<std::string> argv = {"ffmpeg", "-hide_banner", "-loglevel", "error", "-y"};
    argv.insert(argv.end(), args.begin(), args.end());
    argv.push_back(path(name));
    ChildProcessOptions options;
    options.argv = argv;
    options.stdoutPath = path(name + ".log");
    options.stderrPath = options.stdoutPath;
    std::unique_ptr<ChildProcess> process;
    if (ChildProcess::start(options, process)) return "";
    auto code = process->wait(std::chrono::seconds(60));
    return code && *code == 0 ? path(name) : "";
  }

  // Seconds of 25 fps test pattern at |size| ("320x240"), with a sine tone when |audio|.
  std::string video(const std::string& name, const std::string& size, double seconds,
                    bool audio = true, const std::vector<std::string>& extra = {}) {
    std::vector<std::string> args = {
        "-f", "lavfi", "-i",
        "testsrc2=size=" + size + ":rate=25:duration=" + std::to_string(seconds)};
    if (audio) {
      args.insert(args.end(), {"-f", "lavfi", "-i", "sine=duration=" + std::to_string(seconds)});
    }
    args.insert(args.end(), {"-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
    if (audio) args.insert(args.end(), {"-c:a", "aac"});
    args.insert(args.end(), extra.begin(), extra.end());
    return make(name, args);
  }

 private:
  static int& counter() {
    static int value = 0;
    return value;
  }
  std::filesystem::path dir_;
};

}  // namespace nembra::testing
