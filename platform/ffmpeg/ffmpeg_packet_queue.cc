#include "platform/ffmpeg/ffmpeg_packet_queue.h"

extern "C" {
#include <libavcodec/packet.h>
}

namespace nembra::player {

PacketQueue::~PacketQueue() {
  for (Item& item : items_) av_packet_free(&item.packet);
}

void PacketQueue::put(AVPacket* packet) {
  AVPacket* copy = av_packet_alloc();
  if (!copy) return;  // out of memory: the picture glitches, playback goes on
  av_packet_move_ref(copy, packet);
  std::lock_guard lock(mutex_);
  bytes_ += copy->size;
  duration_ += copy->duration;
  items_.push_back({copy, serial_});
  wake_.notify_one();
}

void PacketQueue::putEnd() {
  AVPacket* empty = av_packet_alloc();
  if (!empty) return;
  std::lock_guard lock(mutex_);
  items_.push_back({empty, serial_});
  wake_.notify_one();
}

void PacketQueue::flush(double discardBefore) {
  std::lock_guard lock(mutex_);
  for (Item& item : items_) av_packet_free(&item.packet);
  items_.clear();
  bytes_ = 0;
  duration_ = 0;
  ++serial_;
  discardBefore_ = discardBefore;
  wake_.notify_one();
}

void PacketQueue::abort() {
  std::lock_guard lock(mutex_);
  aborted_ = true;
  wake_.notify_all();
}

bool PacketQueue::get(AVPacket* packet, Entry& entry) {
  std::unique_lock lock(mutex_);
  wake_.wait(lock, [this] { return aborted_ || !items_.empty(); });
  if (aborted_) return false;
  Item item = items_.front();
  items_.pop_front();
  bytes_ -= item.packet->size;
  duration_ -= item.packet->duration;
  entry.serial = item.serial;
  entry.discardBefore = discardBefore_;
  av_packet_unref(packet);
  av_packet_move_ref(packet, item.packet);
  av_packet_free(&item.packet);
  return true;
}

int PacketQueue::serial() const {
  std::lock_guard lock(mutex_);
  return serial_;
}

double PacketQueue::discardBefore() const {
  std::lock_guard lock(mutex_);
  return discardBefore_;
}

size_t PacketQueue::count() const {
  std::lock_guard lock(mutex_);
  return items_.size();
}

int64_t PacketQueue::bytes() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

int64_t PacketQueue::duration() const {
  std::lock_guard lock(mutex_);
  return duration_;
}

}  // namespace nembra::player
