#include "streaming/rtmp_packet_stream.h"

#include <chrono>
#include <exception>
#include <string>

#include "platform/dispatch/thread_name.h"
#include "streaming/stream_log.h"

namespace nembra {

namespace {

constexpr auto kReceivePollInterval = std::chrono::milliseconds(100);
constexpr size_t kReceiveBufferSize = 64 * 1024;

}  // namespace

RTMPPacketStream::RTMPPacketStream(NetworkConnection& connection,
                                   std::shared_ptr<IReceiver<RTMPPacket>> packetReceiver)
    : connection_(connection),
      chunkSize_(rtmp::kDefaultChunkSize),
      chunkCollector_(std::make_shared<MediaCallback<RTMPChunk>>(
          [this](RTMPChunk chunk) { outgoingChunks_.push_back(std::move(chunk)); })),
      demuxer_(std::move(packetReceiver)) {
  receiver_ = std::thread([this] { ReceiverProc(); });
}

RTMPPacketStream::~RTMPPacketStream() {
  stop_.store(true);
  connection_.InterruptWait();
  if (receiver_.joinable()) {
    if (receiver_.get_id() == std::this_thread::get_id()) {
      // Destroyed from its own packet receiver, which is not allowed: at least do not deadlock.
      receiver_.detach();
    } else {
      receiver_.join();
    }
  }
}

void RTMPPacketStream::SetChunkSize(uint64_t size) {
  if (chunkSize_.exchange(size, std::memory_order_relaxed) == size) {
    return;
  }
  for (auto& slot : publishedFormatters_) {
    if (RTMPChunkFormatter* formatter = slot.load(std::memory_order_acquire)) {
      formatter->SetChunkSize(size);
    }
  }
  demuxer_.SetChunkSize(size);
}

RTMPChunkFormatter& RTMPPacketStream::FormatterFor(RTMPChannel channel) {
  const auto index = static_cast<size_t>(channel);
  if (!formatters_[index]) {
    formatters_[index] = std::make_unique<RTMPChunkFormatter>(chunkCollector_, channel);
    publishedFormatters_[index].store(formatters_[index].get(), std::memory_order_release);
    StreamLog::Write("channel created: " + std::to_string(index));
  }
  return *formatters_[index];
}

void RTMPPacketStream::PutFrameImpl(RTMPPacket packet) {
  std::lock_guard lock(sendMutex_);
  struct ClearOnExit {
    RTMPPacketStream& stream;
    ~ClearOnExit() {
      stream.outgoingChunks_.clear();
      stream.outgoingBuffers_.clear();
    }
  } clear{*this};

  FormatterFor(packet.Channel()).PutFrame(packet);
  for (const RTMPChunk& chunk : outgoingChunks_) {
    outgoingBuffers_.emplace_back(chunk.Data());
  }
  connection_.Send(outgoingBuffers_);
}

void RTMPPacketStream::CloseImpl() {
  StreamLog::Write("closing packet stream");
  stop_.store(true);
  // Joined rather than left to end by itself, so that it never outlives the stream; woken so
  // that closing does not wait out its poll.
  connection_.InterruptWait();
  if (receiver_.joinable() && receiver_.get_id() != std::this_thread::get_id()) {
    receiver_.join();
  }
}

void RTMPPacketStream::ReceiverProc() {
  setCurrentThreadName("rtmp.receiver");
  StreamLog::Write("rtmp receiver thread started");
  std::vector<uint8_t> buffer(kReceiveBufferSize);
  while (!stop_.load()) {
    try {
      if (!connection_.WaitForData(kReceivePollInterval)) {
        continue;
      }
      const size_t received = connection_.ReceiveSome(buffer.data(), buffer.size());
      demuxer_.Consume({buffer.data(), received});
    } catch (const std::exception& error) {
      StreamLog::Write(std::string("rtmp receiver error: ") + error.what());
      {
        std::lock_guard lock(receiverErrorMutex_);
        receiverError_ = error.what();
        receiverCause_ = connection_.ReceiveFailureCause();
      }
      std::this_thread::sleep_for(kReceivePollInterval);
      stop_.store(true);
    }
  }
  StreamLog::Write("rtmp receiver thread done");
  receiving_.store(false);
}

std::string RTMPPacketStream::ReceiverFailureCause() const {
  std::lock_guard lock(receiverErrorMutex_);
  return receiverCause_;
}

std::string RTMPPacketStream::ReceiverError() const {
  std::lock_guard lock(receiverErrorMutex_);
  return receiverError_;
}

}  // namespace nembra
