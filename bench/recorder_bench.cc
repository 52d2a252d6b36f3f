// The camera recorder's pipeline (virtual camera and microphone → capture → libx264 + AAC →
// fragmented MP4 → finished MP4), in process through a headless NembraRecorder, beside ffmpeg
// doing the same job in the same run:
// - 30 s of 720p30 recorded in real time: user + system CPU of the recording, and of ffmpeg
//   encoding the same lavfi sources with the same libx264 preset, tune, profile and bit rate and
//   AAC at the same rate (target <= 1.1x);
// - stop to finished file for a 10-minute recording: the fragmented file made by ffmpeg (a clip
//   copied in a loop), then the time the writer takes to turn it into an ordinary MP4 with the
//   index in front (target <= 200 ms);
// - 20 random pause/resume cycles: the file's duration against the recorded time without the
//   pauses (target: within one frame), and the audio and video tracks' start and end offsets
//   (target <= 20 ms).
// Each runs once; the figures are the counters. Needs ffmpeg and ffprobe.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "platform/media/media_backend.h"
#include "platform/media/media_log.h"
#include "platform/system/child_process.h"
#include "platform/ui/headless_ui.h"
#include "platform/ui/screen_presenter.h"
#include "recorder/nembra_recorder.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double cpuSeconds(int who) {
  rusage usage{};
  getrusage(who, &usage);
  auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

int run(const std::vector<std::string>& argv, std::string* output = nullptr) {
  const fs::path log = fs::temp_directory_path() / ("nembra-rec-bench-" + std::to_string(getpid()));
  ChildProcessOptions options;
  options.argv = argv;
  options.stdoutPath = log.string();
  options.stderrPath = log.string() + ".err";
  std::unique_ptr<ChildProcess> child;
  if (OptionalError error = ChildProcess::start(options, child)) {
    std::fprintf(stderr, "%s: %s\n", argv[0].c_str(), error->message.c_str());
    return -1;
  }
  const int code = child->wait(std::chrono::minutes(10)).value_or(-1);
  if (code != 0) std::fprintf(stderr, "%s exited with %d\n", argv[0].c_str(), code);
  if (output) {
    std::ostringstream text;
    for (const std::string& file : {log.string(), log.string() + ".err"}) {
      std::ifstream in(file);
      text << in.rdbuf();
    }
    *output = text.str();
  }
  fs::remove(log);
  fs::remove(log.string() + ".err");
  return code;
}

struct Track {
  double start = 0;
  double duration = 0;
};

// Start and duration of the first video and the first audio track.
bool probeTracks(const std::string& path, Track& video, Track& audio) {
  std::string out;
  if (run({"ffprobe", "-v", "error", "-show_entries", "stream=codec_type,start_time,duration",
           "-of", "csv=p=0", path},
          &out) != 0) {
    return false;
  }
  std::istringstream lines(out);
  std::string line;
  bool haveVideo = false, haveAudio = false;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string type, start, duration;
    std::getline(fields, type, ',');
    std::getline(fields, start, ',');
    std::getline(fields, duration, ',');
    Track track{std::atof(start.c_str()), std::atof(duration.c_str())};
    if (type == "video" && !haveVideo) video = track, haveVideo = true;
    if (type == "audio" && !haveAudio) audio = track, haveAudio = true;
  }
  return haveVideo && haveAudio;
}

// A headless recorder on the virtual camera and microphone that keeps its file.
class Rig {
 public:
  explicit Rig(int quality, bool pauseMode) {
    nembra_.config().useSingleServer("http://127.0.0.1:9");
    RecorderConfig& config = nembra_.recorderConfig();
    config.setVideoQuality(quality);
    config.setResolution(*VideoSize::initWithWidth(16, 9));
    config.setShouldAutoStartRecording(false);
    config.setShouldSendImmediately(true);
    config.setIsPausedMode(pauseMode);
    presenter_ = std::make_shared<ScreenPresenter>(ui_, queue_);
    nembra_.setScreenPresenter(presenter_);
    RecorderEnvironment env = RecorderEnvironment::platform(nembra_);
    env.capture.camera = "lavfi";
    env.capture.microphone = "lavfi";
    env.recordingsDirectory = fs::temp_directory_path().string();
    env.defaultCover = [](const std::string&, std::function<void(StillImagePtr)>) {};
    env.createVideo = nullptr;
    recorder_ = std::make_shared<NembraRecorder>(nembra_, std::move(env));
    presenter_->present(recorder_);
    queue_.runUntil([&] { return recorder_->state() != RecorderState::Configuring; });
  }
  bool ready() const { return recorder_->state() == RecorderState::Idle; }
  void start() {
    recorder_->toggleMovieRecording();
    queue_.runUntil([&] { return recorder_->state() == RecorderState::Recording; });
  }
  // Pumps the main queue for |seconds|.
  void wait(double seconds) {
    queue_.runUntil([] { return false; },
                    std::chrono::milliseconds(static_cast<int>(seconds * 1000)));
  }
  std::string stop() {
    recorder_->toggleMovieRecording();
    queue_.runUntil([&] { return !recorder_->recordedPath().empty(); }, std::chrono::minutes(2));
    return recorder_->recordedPath();
  }
  NembraRecorder& recorder() { return *recorder_; }
  MainQueue& queue() { return queue_; }

 private:
  MainQueue queue_;
  Nembra nembra_{"bench", queue_};
  HeadlessUi ui_;
  std::shared_ptr<ScreenPresenter> presenter_;
  std::shared_ptr<NembraRecorder> recorder_;
};

void BM_Record720p30AgainstFfmpeg(benchmark::State& state) {
  setMediaLogLevel(MediaLogLevel::Quiet);
  constexpr int kSeconds = 30;
  for (auto _ : state) {
    Rig rig(QUALITY_MEDIUM, false);
    if (!rig.ready()) return state.SkipWithError("the virtual camera did not open");
    const double before = cpuSeconds(RUSAGE_SELF);
    rig.start();
    rig.wait(kSeconds);
    const std::string path = rig.stop();
    const double ours = cpuSeconds(RUSAGE_SELF) - before;

    const std::string theirsPath = fs::temp_directory_path() / "nembra-rec-bench-ffmpeg.mp4";
    const double childrenBefore = cpuSeconds(RUSAGE_CHILDREN);
    const int code = run({"ffmpeg",
                          "-nostdin",
                          "-v",
                          "error",
                          "-y",
                          "-f",
                          "lavfi",
                          "-i",
                          "testsrc2=size=1280x720:rate=30",
                          "-f",
                          "lavfi",
                          "-i",
                          "sine=frequency=440:beep_factor=4:sample_rate=48000",
                          "-t",
                          std::to_string(kSeconds),
                          "-c:v",
                          "libx264",
                          "-preset",
                          "veryfast",
                          "-tune",
                          "zerolatency",
                          "-profile:v",
                          "baseline",
                          "-g",
                          "60",
                          "-b:v",
                          "2560000",
                          "-c:a",
                          "aac",
                          "-b:a",
                          "65536",
                          "-ar",
                          "48000",
                          "-ac",
                          "2",
                          "-movflags",
                          "+faststart",
                          theirsPath});
    const double theirs = cpuSeconds(RUSAGE_CHILDREN) - childrenBefore;
    if (code != 0) return state.SkipWithError("ffmpeg failed");
    Track video, audio;
    probeTracks(path, video, audio);
    state.counters["ours_cpu_s"] = ours;
    state.counters["ffmpeg_cpu_s"] = theirs;
    state.counters["cpu_ratio"] = theirs > 0 ? ours / theirs : 0;
    state.counters["ours_video_s"] = video.duration;
    fs::remove(path);
    fs::remove(theirsPath);
  }
}
BENCHMARK(BM_Record720p30AgainstFfmpeg)->Iterations(1)->Unit(benchmark::kSecond);

void BM_StopToFinishedFileTenMinutes(benchmark::State& state) {
  setMediaLogLevel(MediaLogLevel::Quiet);
  const fs::path dir =
      fs::temp_directory_path() / ("nembra-rec-bench-long-" + std::to_string(getpid()));
  fs::create_directories(dir);
  const std::string clip = (dir / "clip.mp4").string();
  const std::string path = (dir / "long.mp4").string();
  // 10 s of 720p at the medium bit rate, then copied in a loop into a 10-minute fragmented file
  // laid out as the writer lays out its part file.
  std::string why;
  if (run({"ffmpeg",
           "-nostdin",
           "-v",
           "error",
           "-y",
           "-f",
           "lavfi",
           "-i",
           "testsrc2=size=1280x720:rate=30",
           "-f",
           "lavfi",
           "-i",
           "anoisesrc=sample_rate=48000",
           "-t",
           "10",
           "-c:v",
           "libx264",
           "-preset",
           "ultrafast",
           "-b:v",
           "2560000",
           "-g",
           "60",
           "-bf",
           "0",
           "-c:a",
           "aac",
           "-ac",
           "2",
           clip},
          &why) != 0 ||
      run({"ffmpeg",
           "-nostdin",
           "-v",
           "error",
           "-y",
           "-stream_loop",
           "-1",
           "-i",
           clip,
           "-t",
           "600",
           "-c",
           "copy",
           "-f",
           "mp4",
           "-movflags",
           "frag_keyframe+empty_moov+default_base_moof",
           "-frag_duration",
           "500000",
           moviePartPath(path)},
          &why) != 0) {
    fs::remove_all(dir);
    return state.SkipWithError(("ffmpeg could not make the recording: " + why).c_str());
  }
  const double partMb = fs::file_size(moviePartPath(path)) / 1e6;
  for (auto _ : state) {
    const auto started = Clock::now();
    OptionalError error = MediaBackend::shared().finishInterruptedMovie(path);
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
    if (error) {
      fs::remove_all(dir);
      return state.SkipWithError(error->message.c_str());
    }
    state.counters["stop_to_finished_ms"] = ms;
    state.counters["file_mb"] = partMb;
  }
  fs::remove_all(dir);
}
BENCHMARK(BM_StopToFinishedFileTenMinutes)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_TwentyRandomPauses(benchmark::State& state) {
  setMediaLogLevel(MediaLogLevel::Quiet);
  for (auto _ : state) {
    Rig rig(QUALITY_LOW, true);
    if (!rig.ready()) return state.SkipWithError("the virtual camera did not open");
    std::mt19937 random(20);
    std::uniform_real_distribution<double> span(0.3, 1.2);
    rig.start();
    for (int i = 0; i < 20; ++i) {
      rig.wait(span(random));
      rig.recorder().toggleMoviePaused();
      rig.wait(span(random));
      rig.recorder().toggleMoviePaused();
    }
    rig.wait(span(random));
    // The last frame's start on the recording's timeline, plus the frame itself.
    const double recorded = rig.recorder().duration() + 1.0 / 30;
    const std::string path = rig.stop();
    Track video, audio;
    if (!probeTracks(path, video, audio)) return state.SkipWithError("the file has no A/V");
    state.counters["recorded_s"] = recorded;
    state.counters["file_video_s"] = video.duration;
    state.counters["duration_error_frames"] = std::abs(video.duration - recorded) * 30;
    state.counters["av_start_offset_ms"] = std::abs(video.start - audio.start) * 1000;
    state.counters["av_end_offset_ms"] =
        std::abs((video.start + video.duration) - (audio.start + audio.duration)) * 1000;
    fs::remove(path);
  }
}
BENCHMARK(BM_TwentyRandomPauses)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
}  // namespace nembra

BENCHMARK_MAIN();
