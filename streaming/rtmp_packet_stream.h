// Sends RTMP messages over the connection and receives the peer's on a thread of its own.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "streaming/media_callback.h"
#include "streaming/network_connection.h"
#include "streaming/receiver.h"
#include "streaming/rtmp_chunk.h"
#include "streaming/rtmp_chunk_demuxer.h"
#include "streaming/rtmp_chunk_format.h"
#include "streaming/rtmp_chunk_formatter.h"
#include "streaming/rtmp_packet.h"

namespace nembra {

// Sending (PutFrame) runs on the caller's thread under the send lock, which is held until every
// chunk of the message is on the socket; chunks of different messages never interleave. Each
// channel gets its formatter on first use ("channel created: " and the number). A message's
// chunks go out in one gathered write (one system call per 1024 chunks).
//
// Receiving runs on one thread per stream, started by the constructor. It waits for data in
// 100 ms slices so that a stop is noticed, frames chunks (RTMPChunkDemuxer) and hands complete
// messages to the packet receiver on that thread. Any error ends it after
// "rtmp receiver error: " and the message; nothing restarts it. Its lines are
// "rtmp receiver thread started" and "rtmp receiver thread done".
//
// The packet receiver may call PutFrame (a reply goes through the same send lock),
// SetChunkSize and Close, but must not destroy the stream.
class RTMPPacketStream : public IReceiver<RTMPPacket> {
 public:
  // |connection| must be connected and must outlive the stream.
  RTMPPacketStream(NetworkConnection& connection,
                   std::shared_ptr<IReceiver<RTMPPacket>> packetReceiver);
  ~RTMPPacketStream() override;
  RTMPPacketStream(const RTMPPacketStream&) = delete;
  RTMPPacketStream& operator=(const RTMPPacketStream&) = delete;

  uint64_t ChunkSize() const { return chunkSize_.load(std::memory_order_relaxed); }
  // One value for both directions: every existing formatter and parser takes it. A formatter
  // created later starts at 128 all the same; kept as is, only channels that exist when the
  // peer announces a size follow it. Not locked against a send in progress: the size is one
  // word, applied from the next chunk. May be called from any thread.
  void SetChunkSize(uint64_t size);

  // False once the receiving thread has ended, by Close or by an error; the send path never
  // notices a lost peer, so this is how owners learn of it. Any thread.
  bool IsReceiving() const { return receiving_.load(); }
  // The message of the error that ended the receiving thread; empty while it runs or after a
  // plain Close. Any thread.
  std::string ReceiverError() const;
  // What happened, in plain words, when the receiving thread ended on a failed receive (see
  // NetworkConnection::ReceiveFailureCause); else empty. Any thread.
  std::string ReceiverFailureCause() const;

 protected:
  // Throws "network send data failed" (see NetworkConnection::Send).
  void PutFrameImpl(RTMPPacket packet) override;
  // Logs "closing packet stream" and stops the receiving thread, waiting for it (at most about
  // 100 ms) unless called from it.
  void CloseImpl() override;

 private:
  void ReceiverProc();
  RTMPChunkFormatter& FormatterFor(RTMPChannel channel);

  NetworkConnection& connection_;
  std::atomic<uint64_t> chunkSize_;

  std::mutex sendMutex_;
  // Formatters are created under the send lock and published for SetChunkSize; a filled slot
  // keeps its formatter until the stream is destroyed.
  std::array<std::unique_ptr<RTMPChunkFormatter>, rtmp::kChannelSlots> formatters_;
  std::array<std::atomic<RTMPChunkFormatter*>, rtmp::kChannelSlots> publishedFormatters_{};
  std::shared_ptr<MediaCallback<RTMPChunk>> chunkCollector_;
  std::vector<RTMPChunk> outgoingChunks_;                  // guarded by sendMutex_
  std::vector<std::span<const uint8_t>> outgoingBuffers_;  // guarded by sendMutex_

  RTMPChunkDemuxer demuxer_;  // receiving thread only, but for SetChunkSize
  std::atomic<bool> stop_{false};
  std::atomic<bool> receiving_{true};
  mutable std::mutex receiverErrorMutex_;
  std::string receiverError_;  // guarded by receiverErrorMutex_
  std::string receiverCause_;  // guarded by receiverErrorMutex_
  std::thread receiver_;
};

}  // namespace nembra
