// Joins encoded samples to the RTMP client: one FLV muxer with a video and an audio track in
// front of one publishing client.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/media/media_encoder_samples.h"
#include "streaming/flv_muxer.h"
#include "streaming/network_connection.h"
#include "streaming/rtmp_client.h"

namespace nembra {

// Called on the RTMP client's receiving thread (onPublishStart, onError) or on the thread that
// stops the streamer (onPublishStop). It must not stop or destroy the streamer from there.
class LiveStreamerDelegate {
 public:
  virtual ~LiveStreamerDelegate() = default;
  virtual void onPublishStart() {}
  virtual void onPublishStop() {}
  virtual void onError(const std::string& message) { (void)message; }
};

// What has gone out since the start, for status lines.
struct LiveStreamerCounters {
  uint64_t videoFrames = 0;  // NALU tags, sequence header not counted
  uint64_t audioFrames = 0;  // raw AAC tags, config not counted
  uint64_t bytes = 0;        // tag bodies handed to the client
};

// Kept as is, because ingest servers and players are known to cope with them:
// - the first AAC frame is replaced by the two config bytes and is not sent itself;
// - the parameter sets put in front of a key frame get a 4-byte length of which only the low
//   byte is written, so a set of 256 bytes or more gets a wrong prefix;
// - video before the first key frame is dropped; audio is not held back for video.
//
// Threading: put*/stop from any thread (video and audio may come from two); the muxer and the
// client's send path run under one lock.
class LiveStreamer {
 public:
  // Connects (see RTMPClient for the address and the start-up that follows on the receiving
  // thread). Returns nothing when that fails, after logging the reason; |error| (optional)
  // receives it. The delegate is installed before connecting, so no callback is missed.
  static std::unique_ptr<LiveStreamer> initWithTargetAddress(
      const std::string& targetAddress, const std::string& streamName,
      std::weak_ptr<LiveStreamerDelegate> delegate = {}, std::string* error = nullptr,
      std::unique_ptr<NetworkConnection> connection = nullptr);
  ~LiveStreamer();
  LiveStreamer(const LiveStreamer&) = delete;
  LiveStreamer& operator=(const LiveStreamer&) = delete;

  void setDelegate(std::weak_ptr<LiveStreamerDelegate> delegate);

  // Each returns false when the sample could not be sent; the reason went to the log and to the
  // delegate's onError. Samples skipped by design (video before the first key frame) return true.
  bool putVideoSample(const EncodedVideoSample& sample);
  bool putAudioSample(const std::vector<uint8_t>& data, std::array<uint8_t, 2> asc, double pts);
  // Closes the client. Safe to call more than once.
  void stop();

  bool isPublishing() const { return client_ && client_->IsPublishing(); }
  // False once the client's receiving thread has ended: the server closed or the network failed.
  bool isReceiving() const { return client_ && client_->IsReceiving(); }
  std::string receiverError() const { return client_ ? client_->ReceiverError() : std::string(); }
  // What ended the receiving, in plain words when the socket failed, else receiverError().
  std::string receiverFailure() const {
    std::string cause = client_ ? client_->ReceiverFailureCause() : std::string();
    return cause.empty() ? receiverError() : cause;
  }
  LiveStreamerCounters counters() const;

 private:
  LiveStreamer() = default;
  void connect(const std::string& targetAddress, const std::string& streamName,
               std::unique_ptr<NetworkConnection> connection);
  bool putFrame(MediaFrame frame, uint32_t trackId);
  std::shared_ptr<LiveStreamerDelegate> delegate() const;

  mutable std::mutex delegateMutex_;
  std::weak_ptr<LiveStreamerDelegate> delegate_;  // guarded by delegateMutex_

  std::mutex sendMutex_;
  std::unique_ptr<RTMPClient> client_;
  std::unique_ptr<FLVMuxer> muxer_;
  uint32_t videoTrackId_ = 0;
  uint32_t audioTrackId_ = 0;
  bool firstKeyFrameSent = false;  // guarded by sendMutex_
  bool audioConfigSent = false;    // guarded by sendMutex_
  bool stopped_ = false;           // guarded by sendMutex_

  std::atomic<uint64_t> videoFrames_{0};
  std::atomic<uint64_t> audioFrames_{0};
  std::atomic<uint64_t> bytes_{0};
};

}  // namespace nembra
