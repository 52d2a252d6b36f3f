#include "platform/ffmpeg/ffmpeg_demuxer.h"

#include <malloc.h>

#include <chrono>

#include "platform/dispatch/thread_name.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace nembra::player {

namespace {
// Reading pauses once every stream has a second queued. In memory, though, only a few MB are
// held: the byte source is a local file or the loader's store on disk, so a read costs little
// and a deep queue buys nothing but resident size (a high-rate stream fills 15 MB in a second).
// Past the soft limit a stream running short still gets its packets, or a file whose streams
// are interleaved coarsely would starve the one stored later; the hard limit stops even that.
constexpr int64_t kSoftQueuedBytes = 2 * 1024 * 1024;
constexpr int64_t kHardQueuedBytes = 15 * 1024 * 1024;
constexpr size_t kMinPackets = 25;
constexpr double kMinQueuedSeconds = 1.0;
constexpr size_t kShortPackets = 3;
constexpr double kShortSeconds = 0.25;
// Packets of a high-rate stream are large and made and freed on different threads: the
// allocator keeps what they leave behind unless asked, and the resident size creeps up.
constexpr auto kReleaseEvery = std::chrono::milliseconds(500);
}  // namespace

Demuxer::Demuxer(MediaPlayerItem item, PacketQueue& video, PacketQueue& audio)
    : item_(std::move(item)), videoPackets_(video), audioPackets_(audio) {}

Demuxer::~Demuxer() { stop(); }

void Demuxer::start(Listener& listener) {
  listener_ = &listener;
  thread_ = std::thread([this] {
    setCurrentThreadName("com.nembra.player.demux");
    run();
  });
}

void Demuxer::seek(double seconds) {
  std::lock_guard lock(mutex_);
  pendingSeek_ = seconds;
  wake_.notify_all();
}

void Demuxer::stop() {
  stopping_.store(true);
  {
    std::lock_guard lock(mutex_);
    wake_.notify_all();
    if (io_) io_->cancel();
  }
  if (thread_.joinable()) thread_.join();
}

int Demuxer::interruptCallback(void* opaque) {
  return static_cast<Demuxer*>(opaque)->stopping_.load() ? 1 : 0;
}

void Demuxer::run() {
  OptionalError error = open();
  if (!error && !stopping_.load()) error = listener_->demuxerOpened(opened_);
  if (!error) error = readLoop();
  if (error && !stopping_.load()) listener_->demuxerFailed(*error);
}

OptionalError Demuxer::open() {
  const bool fromSource = item_.source != nullptr;
  const std::string name = !item_.name.empty() ? item_.name : item_.path;
  AVFormatContext* input = avformat_alloc_context();
  if (!input) return Error::internal("out of memory opening " + name);
  input->interrupt_callback = {&Demuxer::interruptCallback, this};
  if (fromSource) {
    // Created here, but cancel() may come from stop() on another thread: publish under the lock.
    auto io = ByteSourceIo::create(item_.source);
    if (!io) {
      avformat_free_context(input);
      return Error::internal("out of memory opening " + name);
    }
    input->pb = io->context();
    input->flags |= AVFMT_FLAG_CUSTOM_IO;
    std::lock_guard lock(mutex_);
    io_ = std::move(io);
  }
  if (stopping_.load() && io_) io_->cancel();  // stop() may have run before io_ was there
  int rc = avformat_open_input(&input, fromSource ? nullptr : item_.path.c_str(), nullptr, nullptr);
  if (rc < 0) {
    // avformat_open_input frees the context on failure.
    if (rc == AVERROR(ENOENT) || rc == AVERROR(EACCES)) {
      return Error::file("can't open " + name + ": " + avErrorText(rc), AVUNERROR(rc));
    }
    return Error::media("can't open " + name + ": " + avErrorText(rc));
  }
  input_.reset(input);
  rc = avformat_find_stream_info(input, nullptr);
  if (rc < 0) return Error::media("can't read the streams of " + name + ": " + avErrorText(rc));

  opened_.input = input;
  opened_.videoStream = av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  opened_.audioStream = av_find_best_stream(input, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
  // Cover art is a still picture, not a video track.
  if (opened_.videoStream >= 0 &&
      (input->streams[opened_.videoStream]->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
    opened_.videoStream = -1;
  }
  if (opened_.videoStream < 0 && opened_.audioStream < 0) {
    return Error::media(name + " has neither a video nor an audio stream");
  }
  opened_.startTime = input->start_time != AV_NOPTS_VALUE
                          ? static_cast<double>(input->start_time) / AV_TIME_BASE
                          : 0;
  opened_.duration = input->duration > 0 ? static_cast<double>(input->duration) / AV_TIME_BASE : 0;
  return std::nullopt;
}

bool Demuxer::queuesFull() const {
  const int64_t bytes = videoPackets_.bytes() + audioPackets_.bytes();
  if (bytes > kHardQueuedBytes) return true;
  auto seconds = [this](int index, const PacketQueue& queue) {
    return static_cast<double>(queue.duration()) * av_q2d(input_->streams[index]->time_base);
  };
  auto enough = [&](int index, const PacketQueue& queue) {
    if (index < 0) return true;
    return queue.count() > kMinPackets &&
           (queue.duration() == 0 || seconds(index, queue) > kMinQueuedSeconds);
  };
  if (enough(opened_.videoStream, videoPackets_) && enough(opened_.audioStream, audioPackets_)) {
    return true;
  }
  if (bytes <= kSoftQueuedBytes) return false;
  // Short of packets, or short of time while holding little: a stream of large pictures with
  // a few queued has its decoder busy, and its bytes are what the limit is about.
  auto runningShort = [&](int index, const PacketQueue& queue) {
    if (index < 0) return false;
    return queue.count() < kShortPackets ||
           (queue.duration() > 0 && seconds(index, queue) < kShortSeconds &&
            queue.bytes() < kSoftQueuedBytes / 2);
  };
  return !runningShort(opened_.videoStream, videoPackets_) &&
         !runningShort(opened_.audioStream, audioPackets_);
}

void Demuxer::releaseFreedMemory() {
  const auto now = std::chrono::steady_clock::now();
  if (now - lastRelease_ < kReleaseEvery) return;
  lastRelease_ = now;
  ::malloc_trim(0);
}

void Demuxer::waitBriefly() {
  std::unique_lock lock(mutex_);
  wake_.wait_for(lock, std::chrono::milliseconds(10),
                 [this] { return stopping_.load() || pendingSeek_.has_value(); });
}

void Demuxer::performSeek(double seconds) {
  const auto target = static_cast<int64_t>((seconds + opened_.startTime) * AV_TIME_BASE);
  // The key frame at or before the target: the decoders drop what precedes the target.
  int rc = avformat_seek_file(input_.get(), -1, INT64_MIN, target, target, 0);
  if (rc < 0) avformat_seek_file(input_.get(), -1, INT64_MIN, target, INT64_MAX, 0);
  videoPackets_.flush(seconds);
  audioPackets_.flush(seconds);
  reachedEnd_.store(false);
  listener_->demuxerSeeked(seconds);
}

OptionalError Demuxer::readLoop() {
  AvPacket packet(av_packet_alloc());
  if (!packet) return Error::internal("out of memory reading packets");
  while (!stopping_.load()) {
    std::optional<double> seekTo;
    {
      std::lock_guard lock(mutex_);
      seekTo.swap(pendingSeek_);
    }
    if (seekTo) performSeek(*seekTo);
    if (reachedEnd_.load() || queuesFull()) {
      releaseFreedMemory();
      waitBriefly();
      continue;
    }
    int rc = av_read_frame(input_.get(), packet.get());
    if (rc < 0) {
      if (stopping_.load()) break;
      AVIOContext* pb = input_->pb;
      if (rc == AVERROR_EOF || (pb && avio_feof(pb))) {
        // Each decoder drains what it holds when it meets the end packet.
        if (opened_.videoStream >= 0) videoPackets_.putEnd();
        if (opened_.audioStream >= 0) audioPackets_.putEnd();
        reachedEnd_.store(true);
        continue;
      }
      if (pb && pb->error) {
        return Error::media("can't read " + (!item_.name.empty() ? item_.name : item_.path) + ": " +
                            avErrorText(pb->error));
      }
      waitBriefly();  // nothing yet (a live or growing input): try again shortly
      continue;
    }
    if (packet->stream_index == opened_.videoStream) {
      videoPackets_.put(packet.get());
    } else if (packet->stream_index == opened_.audioStream) {
      audioPackets_.put(packet.get());
    } else {
      av_packet_unref(packet.get());
    }
  }
  return std::nullopt;
}

}  // namespace nembra::player
