#include "streaming/live_streamer.h"

#include <exception>

#include "streaming/media_callback.h"
#include "streaming/stream_log.h"

namespace nembra {

std::unique_ptr<LiveStreamer> LiveStreamer::initWithTargetAddress(
    const std::string& targetAddress, const std::string& streamName,
    std::weak_ptr<LiveStreamerDelegate> delegate, std::string* error,
    std::unique_ptr<NetworkConnection> connection) {
  std::unique_ptr<LiveStreamer> streamer(new LiveStreamer());
  streamer->delegate_ = std::move(delegate);
  try {
    streamer->connect(targetAddress, streamName, std::move(connection));
  } catch (const std::exception& exception) {
    StreamLog::Write(exception.what());
    if (error) *error = exception.what();
    streamer->stop();
    return nullptr;
  }
  return streamer;
}

LiveStreamer::~LiveStreamer() { stop(); }

void LiveStreamer::connect(const std::string& targetAddress, const std::string& streamName,
                           std::unique_ptr<NetworkConnection> connection) {
  client_ = std::make_unique<RTMPClient>(targetAddress, streamName, std::move(connection));
  client_->SetErrorCallback([this](const std::string& message) {
    if (auto target = delegate()) target->onError(message);
  });
  client_->SetPublishStartCallback([this] {
    if (auto target = delegate()) target->onPublishStart();
  });
  client_->SetPublishStopCallback([this] {
    if (auto target = delegate()) target->onPublishStop();
  });
  client_->Connect();

  auto toClient = std::make_shared<MediaCallback<FLVFrame>>([this](FLVFrame frame) {
    const size_t size = frame.Data().size();
    client_->PutFrame(frame);
    // Counted once the client has taken it; the tag header and trailer are not sent.
    bytes_ += size > 15 ? size - 15 : 0;
  });
  muxer_ = std::make_unique<FLVMuxer>(toClient);
  videoTrackId_ = muxer_->AddTrack(MediaDescriptor(MediaType::Video, MediaCodec::H264));
  audioTrackId_ = muxer_->AddTrack(MediaDescriptor(MediaType::Audio, MediaCodec::AAC));
  firstKeyFrameSent = false;
  audioConfigSent = false;
  StreamLog::Write("RTMP client connected");
}

void LiveStreamer::setDelegate(std::weak_ptr<LiveStreamerDelegate> delegate) {
  std::lock_guard lock(delegateMutex_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<LiveStreamerDelegate> LiveStreamer::delegate() const {
  std::lock_guard lock(delegateMutex_);
  return delegate_.lock();
}

LiveStreamerCounters LiveStreamer::counters() const {
  return {videoFrames_.load(), audioFrames_.load(), bytes_.load()};
}

bool LiveStreamer::putFrame(MediaFrame frame, uint32_t trackId) {
  try {
    muxer_->PutFrame(frame, trackId);
    return true;
  } catch (const std::exception& exception) {
    StreamLog::Write(exception.what());
    if (auto target = delegate()) target->onError(exception.what());
    return false;
  }
}

bool LiveStreamer::putVideoSample(const EncodedVideoSample& sample) {
  MediaFrame frame(MediaType::Video, MediaCodec::H264);
  frame.SetPTS(sample.pts);
  frame.SetKeyFrame(sample.keyFrame);
  std::vector<uint8_t>& data = frame.Data();
  if (sample.keyFrame) {
    if (sample.sps.empty()) {
      StreamLog::Write("Error getting of sps NAL");
      return false;
    }
    if (sample.pps.empty()) {
      StreamLog::Write("Error getting of pps NAL");
      return false;
    }
    data.reserve(8 + sample.sps.size() + sample.pps.size() + sample.data.size());
    for (const std::vector<uint8_t>* set : {&sample.sps, &sample.pps}) {
      data.insert(data.end(), {0, 0, 0, static_cast<uint8_t>(set->size())});
      data.insert(data.end(), set->begin(), set->end());
    }
  }
  data.insert(data.end(), sample.data.begin(), sample.data.end());

  std::lock_guard lock(sendMutex_);
  if (stopped_ || !muxer_) return false;
  if (!sample.keyFrame && !firstKeyFrameSent) return true;
  if (!putFrame(frame, videoTrackId_)) return false;
  firstKeyFrameSent = true;
  ++videoFrames_;
  return true;
}

bool LiveStreamer::putAudioSample(const std::vector<uint8_t>& data, std::array<uint8_t, 2> asc,
                                  double pts) {
  std::lock_guard lock(sendMutex_);
  if (stopped_ || !muxer_) return false;
  MediaFrame frame(MediaType::Audio, MediaCodec::AAC);
  frame.SetPTS(pts);
  frame.SetKeyFrame(!audioConfigSent);
  if (frame.KeyFrame()) {
    frame.Data().assign(asc.begin(), asc.end());
  } else {
    frame.Data() = data;
  }
  if (!putFrame(frame, audioTrackId_)) return false;
  if (audioConfigSent) ++audioFrames_;
  audioConfigSent = true;
  return true;
}

void LiveStreamer::stop() {
  std::lock_guard lock(sendMutex_);
  if (stopped_) return;
  stopped_ = true;
  if (client_) client_->Close();
}

}  // namespace nembra
