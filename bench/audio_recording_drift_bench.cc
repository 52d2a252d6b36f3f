// Drift of an audio recording against the clock: the audio recorder's manager records the
// virtual microphone for --seconds (600 by default) and, once a second, compares the sound
// written to the file (samples / 44100) with the time elapsed since the first block. Prints the
// largest and the final difference, and the take's length as ffprobe reads it back.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "capture/audio_recorder_manager.h"
#include "nembra/main_queue.h"

int main(int argc, char** argv) {
  int seconds = 600;
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::string(argv[i]) == "--seconds") seconds = std::atoi(argv[i + 1]);
  }
  nembra::MainQueue queue;
  nembra::AudioRecorderManager manager(queue);
  manager.setMicrophone("lavfi");
  const std::string path = std::filesystem::temp_directory_path() / "nembra-drift-bench.m4a";
  if (auto error = manager.record(path)) {
    std::printf("cannot record: %s\n", error->message.c_str());
    return 1;
  }
  // The clock starts with the first block written.
  queue.runUntil([&] { return manager.recordedSeconds() > 0; }, std::chrono::seconds(10));
  const auto start = std::chrono::steady_clock::now();
  const double first = manager.recordedSeconds();
  double worst = 0;
  double last = 0;
  for (int s = 1; s <= seconds; ++s) {
    std::this_thread::sleep_until(start + std::chrono::seconds(s));
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    last = (manager.recordedSeconds() - first) - elapsed;
    worst = std::max(worst, std::abs(last));
  }
  manager.stop();
  const std::string probe =
      "ffprobe -v error -show_entries format=duration -of csv=p=0 '" + path + "'";
  double fileSeconds = 0;
  if (FILE* pipe = popen(probe.c_str(), "r")) {
    if (std::fscanf(pipe, "%lf", &fileSeconds) != 1) fileSeconds = 0;
    pclose(pipe);
  }
  std::printf("audio recording drift over %d s (virtual microphone, ALAC 2 ch 44100 Hz)\n",
              seconds);
  std::printf("  written - elapsed: final %+.1f ms, largest |%.1f| ms (one block is 23.2 ms)\n",
              last * 1000, worst * 1000);
  std::printf("  file length read back: %.3f s, samples counted: %.3f s\n", fileSeconds,
              manager.recordedSeconds());
  std::filesystem::remove(path);
  return 0;
}
