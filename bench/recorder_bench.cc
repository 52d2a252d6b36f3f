// The camera recorder's pipeline (virtual camera and microphone → capture → libx264 + AAC →
// fragmented MP4 → finished MP4), in process through a headless NembraRecorder, beside ffmpeg
// doing the same job in the same run:
// - 30 s of 720p30 recorded in real time: user + system CPU of the recording, and of ffmpeg
//   encoding the same lavfi sources, read in real time, with the same libx264 preset, tune,
//   profile and bit rate and AAC at the same rate (target <= 1.1x); ffmpeg reading them flat
//   out is shown beside it;
// - stop to finished file for a 10-minute recording: the fragmented file made by ffmpeg (a clip
//   copied in a loop) and laid out with the room the writer keeps for the index, then the time
//   the writer takes to turn it into an ordinary MP4 with the index in front (target <= 200 ms);
// - 20 random pause/resume cycles: the file's duration against the recorded time without the
//   pauses (target: within one frame), and the audio and video tracks' start and end offsets
//   (target <= 20 ms).
// Each runs once; the figures are the counters. Needs ffmpeg and ffprobe.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
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
#include "platform/media/movie_writer.h"
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

// ffmpeg encoding |seconds| of the lavfi |graphs| (read at their own pace when |realTime|, as
// a capture device delivers) with the |encoding| options into |path|.
std::vector<std::string> ffmpegFromLavfi(const std::vector<std::string>& graphs, bool realTime,
                                         int seconds, const std::vector<std::string>& encoding,
                                         const std::string& path) {
  std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-v", "error", "-y"};
  for (const std::string& graph : graphs) {
    if (realTime) argv.push_back("-re");
    argv.insert(argv.end(), {"-f", "lavfi", "-i", graph});
  }
  argv.insert(argv.end(), {"-t", std::to_string(seconds)});
  argv.insert(argv.end(), encoding.begin(), encoding.end());
  argv.push_back(path);
  return argv;
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

    // ffmpeg twice: reading its sources in real time, as a recording from a camera does (the
    // comparison), and flat out (the encoding's cost alone).
    const std::string theirsPath = fs::temp_directory_path() / "nembra-rec-bench-ffmpeg.mp4";
    const std::vector<std::string> encoding = {
        "-c:v",       "libx264",  "-preset",   "veryfast",  "-tune", "zerolatency",
        "-profile:v", "baseline", "-g",        "60",        "-b:v",  "2560000",
        "-c:a",       "aac",      "-b:a",      "65536",     "-ar",   "48000",
        "-ac",        "2",        "-movflags", "+faststart"};
    double theirs = 0;
    double theirsFlatOut = 0;
    for (bool realTime : {true, false}) {
      const double childrenBefore = cpuSeconds(RUSAGE_CHILDREN);
      const int code = run(ffmpegFromLavfi(
          {"testsrc2=size=1280x720:rate=30", "sine=frequency=440:beep_factor=4:sample_rate=48000"},
          realTime, kSeconds, encoding, theirsPath));
      if (code != 0) return state.SkipWithError("ffmpeg failed");
      (realTime ? theirs : theirsFlatOut) = cpuSeconds(RUSAGE_CHILDREN) - childrenBefore;
    }
    Track video, audio;
    probeTracks(path, video, audio);
    state.counters["ours_cpu_s"] = ours;
    state.counters["ffmpeg_cpu_s"] = theirs;
    state.counters["cpu_ratio"] = theirs > 0 ? ours / theirs : 0;
    state.counters["ffmpeg_flat_out_cpu_s"] = theirsFlatOut;
    state.counters["cpu_ratio_flat_out"] = theirsFlatOut > 0 ? ours / theirsFlatOut : 0;
    state.counters["ours_video_s"] = video.duration;
    fs::remove(path);
    fs::remove(theirsPath);
  }
}
BENCHMARK(BM_Record720p30AgainstFfmpeg)->Iterations(1)->Unit(benchmark::kSecond);

// Rewrites the fragmented file at |part| as the writer lays it out: ftyp, the initial moov,
// then the room kept for the finished index (a "free" box over a hole), then the fragments.
bool keepIndexRoom(const std::string& part, uint64_t room, std::string& why) {
  std::ifstream in(part, std::ios::binary);
  std::string front;
  for (int box = 0; box < 2; ++box) {
    char header[8];
    if (!in.read(header, 8)) break;
    const uint32_t size = (uint32_t(uint8_t(header[0])) << 24) |
                          (uint32_t(uint8_t(header[1])) << 16) |
                          (uint32_t(uint8_t(header[2])) << 8) | uint8_t(header[3]);
    if (size < 8) break;
    std::string body(size - 8, '\0');
    if (!in.read(body.data(), static_cast<std::streamsize>(body.size()))) break;
    front += std::string(header, 8) + body;
  }
  if (front.find("moov") == std::string::npos) {
    why = "no ftyp and moov at the front of " + part;
    return false;
  }
  const std::string laidOut = part + ".laid-out";
  std::ofstream out(laidOut, std::ios::binary);
  out.write(front.data(), static_cast<std::streamsize>(front.size()));
  const char free[8] = {
      char(room >> 24), char(room >> 16), char(room >> 8), char(room), 'f', 'r', 'e', 'e'};
  out.write(free, 8);
  out.seekp(static_cast<std::streamoff>(room - 8), std::ios::cur);
  out << in.rdbuf();
  out.close();
  if (!out) {
    why = "can't write " + laidOut;
    return false;
  }
  fs::rename(laidOut, part);
  return true;
}

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
  if (run(ffmpegFromLavfi({"testsrc2=size=1280x720:rate=30", "anoisesrc=sample_rate=48000"}, false,
                          10,
                          {"-c:v", "libx264", "-preset", "ultrafast", "-b:v", "2560000", "-g", "60",
                           "-bf", "0", "-c:a", "aac", "-ac", "2"},
                          clip),
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
          &why) != 0 ||
      !keepIndexRoom(moviePartPath(path), movieIndexRoom(MovieWriterSettings{}), why)) {
    fs::remove_all(dir);
    return state.SkipWithError(("ffmpeg could not make the recording: " + why).c_str());
  }
  const uint64_t room = movieIndexRoom(MovieWriterSettings{});
  const double partMb = (fs::file_size(moviePartPath(path)) - room) / 1e6;
  // Ten minutes into a real recording the kernel has long written back all but the last
  // seconds; the setup's freshly written file is flushed first so the stop is timed alone.
  struct stat before {};
  if (int fd = ::open(moviePartPath(path).c_str(), O_RDONLY); fd >= 0) {
    ::fsync(fd);
    ::fstat(fd, &before);
    ::close(fd);
  }
  // A recording being stopped has had the media plug-in loaded all along.
  MediaBackend::shared();
  for (auto _ : state) {
    const auto started = Clock::now();
    OptionalError error = MediaBackend::shared().finishInterruptedMovie(path);
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
    struct stat after {};
    ::stat(path.c_str(), &after);
    // 1 when the media was copied rather than finished where it lies.
    state.counters["copied"] = after.st_ino != before.st_ino;
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
