#include "platform/ffmpeg/ffmpeg_decoder.h"

#include <cmath>

#include "platform/dispatch/thread_name.h"

namespace nembra::player {

Decoder::Decoder(AvCodecContext codec, AVRational timeBase, double startTime, double frameDuration,
                 PacketQueue& packets, FrameQueue& frames)
    : codec_(std::move(codec)),
      timeBase_(timeBase),
      startTime_(startTime),
      frameDuration_(frameDuration),
      packets_(packets),
      frames_(frames) {}

Decoder::~Decoder() { stop(); }

void Decoder::start(std::string threadName) {
  thread_ = std::thread([this, name = std::move(threadName)] {
    setCurrentThreadName(name);
    run();
  });
}

void Decoder::stop() {
  if (thread_.joinable()) thread_.join();
}

void Decoder::run() {
  AvPacket packet(av_packet_alloc());
  if (!packet) return;
  PacketQueue::Entry entry;
  int codecSerial = -1;
  while (packets_.get(packet.get(), entry)) {
    if (entry.serial != codecSerial) {
      // A seek: forget what the codec holds from the old position.
      if (codecSerial >= 0) avcodec_flush_buffers(codec_.get());
      codecSerial = entry.serial;
    }
    const bool end = packet->data == nullptr && packet->side_data_elems == 0;
    // A rejected packet is skipped: the codec resynchronises on the next key frame.
    int rc = avcodec_send_packet(codec_.get(), end ? nullptr : packet.get());
    if (rc == AVERROR(EAGAIN)) {
      // Cannot happen after draining, but keep the packet's turn honest.
      if (!drainFrames(entry)) return;
      avcodec_send_packet(codec_.get(), end ? nullptr : packet.get());
    }
    if (!drainFrames(entry)) return;
    if (end) {
      finishedSerial_.store(entry.serial);
      avcodec_flush_buffers(codec_.get());  // ready to decode again after a seek back
    }
  }
}

bool Decoder::drainFrames(const PacketQueue::Entry& entry) {
  for (;;) {
    AvFrame frame(av_frame_alloc());
    if (!frame) return true;
    int rc = avcodec_receive_frame(codec_.get(), frame.get());
    if (rc < 0) return true;  // EAGAIN, the end, or a broken frame: nothing more now
    DecodedFrame decoded;
    const int64_t stamp = frame->best_effort_timestamp;
    decoded.pts =
        stamp == AV_NOPTS_VALUE ? NAN : static_cast<double>(stamp) * av_q2d(timeBase_) - startTime_;
    if (codec_->codec_type == AVMEDIA_TYPE_AUDIO) {
      decoded.duration =
          frame->sample_rate > 0 ? static_cast<double>(frame->nb_samples) / frame->sample_rate : 0;
    } else {
      decoded.duration = frame->pkt_duration > 0
                             ? static_cast<double>(frame->pkt_duration) * av_q2d(timeBase_)
                             : frameDuration_;
    }
    // Before a seek's target: decoded only to reach the target from the key frame.
    if (!std::isnan(decoded.pts) && decoded.pts + decoded.duration <= entry.discardBefore + 1e-6) {
      continue;
    }
    decoded.serial = entry.serial;
    decoded.frame = std::move(frame);
    if (!frames_.push(std::move(decoded))) return false;
  }
}

}  // namespace nembra::player
