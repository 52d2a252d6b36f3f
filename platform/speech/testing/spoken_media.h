// Test media with speech in it: espeak-ng says a sentence into a WAV, and ffmpeg puts that
// sound under a test pattern in an MP4. Header-only, for tests.
#pragma once

#include <unistd.h>

#include <string>

#include "platform/media/testing/media_test_files.h"

namespace nembra::testing {

inline bool haveEspeak() {
  for (const char* dir : {"/usr/bin", "/usr/local/bin", "/bin"}) {
    if (::access((std::string(dir) + "/espeak-ng").c_str(), X_OK) == 0) return true;
  }
  return false;
}

// |text| spoken slowly and clearly into files.path(name); "" when espeak-ng failed.
inline std::string spokenWav(MediaTestFiles& files, const std::string& name,
                             const std::string& text) {
  ChildProcessOptions options;
  options.argv = {"espeak-ng", "-v", "en-us", "-s", "130", "-w", files.path(name), text};
  options.stdoutPath = files.path(name + ".log");
  options.stderrPath = options.stdoutPath;
  std::unique_ptr<ChildProcess> process;
  if (ChildProcess::start(options, process)) return "";
  auto code = process->wait(std::chrono::seconds(30));
  return code && *code == 0 ? files.path(name) : "";
}

// An MP4 of a small test pattern with |text| spoken as its AAC sound track, the pattern lasting
// as long as the speech.
inline std::string spokenVideo(MediaTestFiles& files, const std::string& name,
                               const std::string& text) {
  std::string wav = spokenWav(files, name + ".wav", text);
  if (wav.empty()) return "";
  return files.make(name, {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=15", "-i", wav,
                           "-shortest", "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt",
                           "yuv420p", "-c:a", "aac", "-movflags", "+faststart"});
}

}  // namespace nembra::testing
