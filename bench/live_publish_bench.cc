// Live publishing against a local nginx with its RTMP module, each figure beside ffmpeg doing the
// same job in the same run:
// - pass-through of a 60 s 720p30 H.264 + AAC file as fast as the server takes it: wall time and
//   user + system CPU of `nembra stream --as-fast-as-possible` and of `ffmpeg -c copy -f flv`
//   (targets: CPU <= 0.5x, wall <= 1.0x ffmpeg's);
// - the same file in real time, the normal use: user + system CPU of `nembra stream` and of
//   `ffmpeg -re -c copy -f flv` over the minute (target: CPU <= 0.5x ffmpeg's);
// - encoding the lavfi test pattern at 720p30 for 30 s in real time: CPU per second of stream of
//   `nembra stream` and of ffmpeg with the same libx264 settings (target <= 1.1x);
// - glass-to-server latency of that encode, in process: from a picture entering the encoder to
//   its last byte handed to the socket, median and p99 (target p99 <= one frame, 33 ms).
// Each runs once (they are long); the figures are the counters. Needs nginx, its RTMP module
// and ffmpeg (scripts/install-deps.sh) and the `nembra` tool built beside this binary.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/ffmpeg/ffmpeg_x264_encoder.h"
#include "platform/media/media_backend.h"
#include "platform/media/media_log.h"
#include "platform/system/child_process.h"
#include "streaming/live_publisher.h"
#include "streaming/stream_log.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kPassThroughSeconds = 60;
constexpr int kEncodeSeconds = 30;
constexpr const char* kVideoBitrate = "2500k";

struct Cost {
  double wall = 0;
  double cpu = 0;  // user + system of the children reaped meanwhile
  int exitCode = -1;
};

double ChildrenCpu() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

Cost Run(const std::vector<std::string>& argv, const std::string& log) {
  Cost cost;
  const double cpuBefore = ChildrenCpu();
  const auto start = Clock::now();
  std::unique_ptr<ChildProcess> child;
  ChildProcessOptions options;
  options.argv = argv;
  options.stdoutPath = log;
  options.stderrPath = log + ".err";
  if (ChildProcess::start(options, child)) return cost;
  cost.exitCode = child->wait(std::chrono::minutes(5)).value_or(-1);
  cost.wall = std::chrono::duration<double>(Clock::now() - start).count();
  cost.cpu = ChildrenCpu() - cpuBefore;
  return cost;
}

std::string NembraTool() {
  return (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "nembra").string();
}

// nginx with the RTMP module on a free port under a scratch prefix, live application "live"
// without recording (the disk is not what is measured).
class LocalNginx {
 public:
  LocalNginx() {
    dir_ = fs::temp_directory_path() / ("nembra-live-bench-" + std::to_string(::getpid()));
    fs::create_directories(dir_ / "logs");
    port_ = 19000 + ::getpid() % 1000;
    std::ofstream(dir_ / "nginx.conf")
        << "load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;\n"
        << (::geteuid() == 0 ? "user root;\n" : "")
        << "worker_processes 1;\nerror_log logs/error.log;\npid logs/nginx.pid;\n"
        << "events { worker_connections 64; }\n"
        << "rtmp { server { listen 127.0.0.1:" << port_ << "; application live { live on; } } }\n";
    ChildProcessOptions options;
    options.argv = {"nginx", "-p",         dir_.string(), "-c", (dir_ / "nginx.conf").string(),
                    "-g",    "daemon off;"};
    options.stderrPath = (dir_ / "nginx.err").string();
    if (ChildProcess::start(options, process_)) process_.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  ~LocalNginx() {
    process_.reset();
    fs::remove_all(dir_);
  }
  bool ok() { return process_ && process_->isRunning(); }
  std::string url(const std::string& name) const {
    return "rtmp://127.0.0.1:" + std::to_string(port_) + "/live/" + name;
  }
  fs::path file(const std::string& name) const { return dir_ / name; }

 private:
  fs::path dir_;
  int port_;
  std::unique_ptr<ChildProcess> process_;
};

void Report(benchmark::State& state, const std::string& prefix, const Cost& cost) {
  state.counters[prefix + "_wall_s"] = cost.wall;
  state.counters[prefix + "_cpu_s"] = cost.cpu;
}

// The 60 s 720p30 H.264 + AAC clip both pass-through cases send, made in |nginx|'s directory;
// "" when ffmpeg could not make it.
std::string MakePassThroughClip(LocalNginx& nginx) {
  const std::string clip = nginx.file("clip.mp4").string();
  const Cost made = Run({"ffmpeg",    "-v",
                         "error",     "-y",
                         "-f",        "lavfi",
                         "-i",        "testsrc2=size=1280x720:rate=30",
                         "-f",        "lavfi",
                         "-i",        "sine=frequency=440:sample_rate=44100",
                         "-t",        std::to_string(kPassThroughSeconds),
                         "-c:v",      "libx264",
                         "-preset",   "veryfast",
                         "-bf",       "0",
                         "-g",        "60",
                         "-b:v",      kVideoBitrate,
                         "-c:a",      "aac",
                         "-shortest", clip},
                        nginx.file("make.log").string());
  return made.exitCode == 0 ? clip : "";
}

void BM_PassThroughPublish720p30(benchmark::State& state) {
  LocalNginx nginx;
  if (!nginx.ok()) return state.SkipWithError("nginx with the RTMP module did not start");
  const std::string clip = MakePassThroughClip(nginx);
  if (clip.empty()) return state.SkipWithError("ffmpeg could not make the clip");
  for (auto _ : state) {
    const Cost ours =
        Run({NembraTool(), "stream", nginx.url("ours"), "--source", clip, "--as-fast-as-possible"},
            nginx.file("ours.log").string());
    const Cost theirs =
        Run({"ffmpeg", "-v", "error", "-i", clip, "-c", "copy", "-f", "flv", nginx.url("theirs")},
            nginx.file("theirs.log").string());
    if (ours.exitCode != 0 || theirs.exitCode != 0) {
      return state.SkipWithError("a publish failed; see the logs in the scratch directory");
    }
    state.SetIterationTime(ours.wall);
    Report(state, "nembra", ours);
    Report(state, "ffmpeg", theirs);
    state.counters["cpu_ratio"] = theirs.cpu > 0 ? ours.cpu / theirs.cpu : 0;
    state.counters["wall_ratio"] = theirs.wall > 0 ? ours.wall / theirs.wall : 0;
  }
}
BENCHMARK(BM_PassThroughPublish720p30)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

void BM_PassThroughPublish720p30RealTime(benchmark::State& state) {
  LocalNginx nginx;
  if (!nginx.ok()) return state.SkipWithError("nginx with the RTMP module did not start");
  const std::string clip = MakePassThroughClip(nginx);
  if (clip.empty()) return state.SkipWithError("ffmpeg could not make the clip");
  for (auto _ : state) {
    const Cost ours = Run({NembraTool(), "stream", nginx.url("ours"), "--source", clip},
                          nginx.file("ours.log").string());
    const Cost theirs = Run({"ffmpeg", "-v", "error", "-re", "-i", clip, "-c", "copy", "-f", "flv",
                             nginx.url("theirs")},
                            nginx.file("theirs.log").string());
    if (ours.exitCode != 0 || theirs.exitCode != 0) {
      return state.SkipWithError("a publish failed; see the logs in the scratch directory");
    }
    state.SetIterationTime(ours.wall);
    Report(state, "nembra", ours);
    Report(state, "ffmpeg", theirs);
    state.counters["cpu_ratio"] = theirs.cpu > 0 ? ours.cpu / theirs.cpu : 0;
  }
}
BENCHMARK(BM_PassThroughPublish720p30RealTime)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

void BM_EncodePublish720p30RealTime(benchmark::State& state) {
  LocalNginx nginx;
  if (!nginx.ok()) return state.SkipWithError("nginx with the RTMP module did not start");
  const std::string seconds = std::to_string(kEncodeSeconds);
  for (auto _ : state) {
    const Cost ours =
        Run({NembraTool(), "stream", nginx.url("ours"), "--source", "lavfi", "--size", "1280x720",
             "--fps", "30", "--bitrate", kVideoBitrate, "--duration", seconds},
            nginx.file("ours.log").string());
    // The settings the tool gives libx264, and its AAC settings.
    const Cost theirs = Run({"ffmpeg",
                             "-v",
                             "error",
                             "-re",
                             "-f",
                             "lavfi",
                             "-i",
                             "testsrc2=size=1280x720:rate=30",
                             "-f",
                             "lavfi",
                             "-i",
                             "sine=frequency=440:beep_factor=4:sample_rate=44100",
                             "-t",
                             seconds,
                             "-c:v",
                             "libx264",
                             "-profile:v",
                             "baseline",
                             "-preset",
                             MediaEncoderX264::kPreset,
                             "-tune",
                             "zerolatency",
                             "-g",
                             "60",
                             "-bf",
                             "0",
                             "-b:v",
                             kVideoBitrate,
                             "-pix_fmt",
                             "yuv420p",
                             "-c:a",
                             "aac",
                             "-ac",
                             "2",
                             "-b:a",
                             "128k",
                             "-f",
                             "flv",
                             nginx.url("theirs")},
                            nginx.file("theirs.log").string());
    if (ours.exitCode != 0 || theirs.exitCode != 0) {
      return state.SkipWithError("a publish failed; see the logs in the scratch directory");
    }
    state.SetIterationTime(ours.wall);
    Report(state, "nembra", ours);
    Report(state, "ffmpeg", theirs);
    state.counters["nembra_cpu_per_stream_s"] = ours.cpu / kEncodeSeconds;
    state.counters["ffmpeg_cpu_per_stream_s"] = theirs.cpu / kEncodeSeconds;
    state.counters["cpu_ratio"] = theirs.cpu > 0 ? ours.cpu / theirs.cpu : 0;
  }
}
BENCHMARK(BM_EncodePublish720p30RealTime)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

void BM_GlassToServerLatency720p30(benchmark::State& state) {
  LocalNginx nginx;
  if (!nginx.ok()) return state.SkipWithError("nginx with the RTMP module did not start");
  StreamLog::SetSink([](const std::string&) {});
  setMediaLogLevel(MediaLogLevel::Errors);
  for (auto _ : state) {
    OptionalError error;
    auto source = openTestPatternSource(1280, 720, 30, error);
    if (!source) return state.SkipWithError(error->message.c_str());
    LivePublisherOptions options;
    options.targetAddress = nginx.url("latency");
    options.streamName = "latency";
    options.duration = kEncodeSeconds;
    LivePublisher publisher(std::move(source), options);
    std::string failure;
    if (!publisher.start(failure)) return state.SkipWithError(failure.c_str());
    while (!publisher.done()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    publisher.finish();
    std::vector<double> latencies = publisher.videoLatencies();
    if (latencies.empty()) return state.SkipWithError("no video was sent");
    std::sort(latencies.begin(), latencies.end());
    state.SetIterationTime(publisher.stats().elapsed);
    state.counters["frames"] = static_cast<double>(latencies.size());
    state.counters["median_ms"] = latencies[latencies.size() / 2] * 1000;
    state.counters["p99_ms"] = latencies[latencies.size() * 99 / 100] * 1000;
    state.counters["max_ms"] = latencies.back() * 1000;
  }
}
BENCHMARK(BM_GlassToServerLatency720p30)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace
}  // namespace nembra

BENCHMARK_MAIN();
