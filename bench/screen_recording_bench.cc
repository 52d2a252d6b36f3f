// Screen recording beside `ffmpeg -f x11grab`, in one run, on the same 1920×1080 Xvfb display
// (started here) at 30 frames/s for --seconds (30 by default), --rounds times (alternating
// which goes first), both with libx264's veryfast
// preset, 4:2:0, a two-second GOP and no sound, into a QuickTime movie:
//   - CPU (user + system) of `nembra record-screen` against ffmpeg's, as a ratio;
//   - frames written as a share of the expected count (seconds × 30), for both.
// A small clock runs on the display so that the pictures change. Needs Xvfb, ffmpeg, ffprobe
// and xclock; without xclock the screen stays still.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/ui/testing/xvfb_display.h"

extern char** environ;

namespace {

struct Run {
  int exitCode = -1;
  double cpuSeconds = 0;
  double wallSeconds = 0;
};

Run runMeasured(const std::vector<std::string>& argv, const std::vector<std::string>& env = {}) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<std::string> environment;
  for (char** e = environ; *e; ++e) environment.emplace_back(*e);
  environment.insert(environment.end(), env.begin(), env.end());
  std::vector<char*> envp;
  for (auto& e : environment) envp.push_back(e.data());
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  Run run;
  const auto started = std::chrono::steady_clock::now();
  pid_t pid = 0;
  if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0) return run;
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  run.wallSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.cpuSeconds = usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec +
                   usage.ru_stime.tv_usec / 1e6;
  return run;
}

long countFrames(const std::string& path) {
  const std::string command =
      "ffprobe -v error -count_frames -select_streams v:0 -show_entries "
      "stream=nb_read_frames -of csv=p=0 '" +
      path + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return -1;
  long frames = -1;
  if (std::fscanf(pipe, "%ld", &frames) != 1) frames = -1;
  pclose(pipe);
  return frames;
}

}  // namespace

int main(int argc, char** argv) {
  int seconds = 30;
  int rounds = 1;
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::string(argv[i]) == "--seconds") seconds = std::atoi(argv[i + 1]);
    if (std::string(argv[i]) == "--rounds") rounds = std::max(1, std::atoi(argv[i + 1]));
  }
  nembra::testing::XvfbDisplay xvfb("1920x1080x24");
  if (xvfb.display().empty()) {
    std::printf("skipped: no Xvfb\n");
    return 0;
  }
  const std::string display = xvfb.display();
  pid_t clock = 0;
  {
    std::vector<std::string> clockArgs = {"xclock", "-display",  display,          "-update",
                                          "1",      "-geometry", "400x400+100+100"};
    std::vector<char*> args;
    for (auto& a : clockArgs) args.push_back(a.data());
    args.push_back(nullptr);
    if (posix_spawnp(&clock, "xclock", nullptr, nullptr, args.data(), environ) != 0) clock = 0;
  }
  const std::string work = std::filesystem::temp_directory_path() / "nembra-screen-bench";
  const std::string tool = NEMBRA_CLI_PATH;
  const double expected = seconds * 30.0;
  std::printf("screen recording, 1920x1080 @ 30 fps for %d s (expected %.0f frames), %d round%s\n",
              seconds, expected, rounds, rounds == 1 ? "" : "s");
  double ourCpu = 0, theirCpu = 0;
  long ourFrames = 0, theirFrames = 0;
  bool allOk = true;
  for (int round = 0; round < rounds; ++round) {
    std::filesystem::remove_all(work);
    std::filesystem::create_directories(work);
    auto recordOurs = [&] {
      const Run run = runMeasured({tool, "record-screen", "--app-group", "bench", "--display",
                                   display, "--mic", "none", "--duration", std::to_string(seconds)},
                                  {"NEMBRA_HOME=" + work + "/home"});
      std::string movie;
      std::error_code ec;
      const std::string shared =
          work + "/home/AppGroups/bench/Library/Caches/com.nembra.screen-recording";
      for (const auto& entry : std::filesystem::directory_iterator(shared, ec))
        movie = entry.path();
      const long frames = movie.empty() ? -1 : countFrames(movie);
      std::printf("  nembra record-screen: exit %d, cpu %.2f s, wall %.2f s, frames %ld (%.1f%%)\n",
                  run.exitCode, run.cpuSeconds, run.wallSeconds, frames, 100.0 * frames / expected);
      ourCpu += run.cpuSeconds;
      ourFrames += frames;
      allOk = allOk && run.exitCode == 0;
    };
    auto recordTheirs = [&] {
      const std::string movie = work + "/ffmpeg.mov";
      const Run run = runMeasured({"ffmpeg",
                                   "-nostdin",
                                   "-y",
                                   "-f",
                                   "x11grab",
                                   "-framerate",
                                   "30",
                                   "-video_size",
                                   "1920x1080",
                                   "-i",
                                   display,
                                   "-t",
                                   std::to_string(seconds),
                                   "-c:v",
                                   "libx264",
                                   "-preset",
                                   "veryfast",
                                   "-g",
                                   "60",
                                   "-pix_fmt",
                                   "yuv420p",
                                   "-f",
                                   "mov",
                                   movie});
      const long frames = countFrames(movie);
      std::printf("  ffmpeg -f x11grab:    exit %d, cpu %.2f s, wall %.2f s, frames %ld (%.1f%%)\n",
                  run.exitCode, run.cpuSeconds, run.wallSeconds, frames, 100.0 * frames / expected);
      theirCpu += run.cpuSeconds;
      theirFrames += frames;
      allOk = allOk && run.exitCode == 0;
    };
    // Alternate who goes first: the machine's load changes over a run.
    if (round % 2 == 0) {
      recordOurs();
      recordTheirs();
    } else {
      recordTheirs();
      recordOurs();
    }
  }
  if (clock > 0) {
    kill(clock, SIGTERM);
    waitpid(clock, nullptr, 0);
  }
  std::printf(
      "  total: nembra %.1f%% of the frames, ffmpeg %.1f%%; cpu ratio (nembra / ffmpeg) "
      "%.3f, per frame %.3f\n",
      100.0 * ourFrames / (expected * rounds), 100.0 * theirFrames / (expected * rounds),
      theirCpu > 0 ? ourCpu / theirCpu : 0.0,
      theirCpu > 0 && ourFrames > 0 ? (ourCpu / ourFrames) / (theirCpu / theirFrames) : 0.0);
  std::filesystem::remove_all(work);
  return allOk ? 0 : 1;
}
