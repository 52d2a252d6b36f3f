// Demuxed packets of one stream on their way from the demux thread to the stream's decoder.
//
// Every packet carries the queue's serial at the time it was put. A seek flushes the queue and
// starts a new serial, so the decoder can tell the packets (and the frames made from them) of the
// old position from those of the new one, and drop what is older than the seek's target.
//
// Threading: put/putEnd/flush from the demux thread; get from the decoder thread; abort and the
// counters from any thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>

struct AVPacket;

namespace nembra::player {

class PacketQueue {
 public:
  PacketQueue() = default;
  ~PacketQueue();
  PacketQueue(const PacketQueue&) = delete;
  PacketQueue& operator=(const PacketQueue&) = delete;

  // Takes the data of |packet| (left blank), tagged with the current serial.
  void put(AVPacket* packet);
  // An empty packet: the decoder drains itself when it gets one (end of the stream).
  void putEnd();
  // Drops every queued packet and starts a new serial whose frames before |discardBefore|
  // (seconds) are not shown.
  void flush(double discardBefore);
  // Wakes a blocked get() for good; later calls of get() return false at once.
  void abort();

  struct Entry {
    int serial = 0;
    double discardBefore = 0;
  };
  // Blocks until a packet is there; moves it into |packet| (an empty one marks the end). False
  // once aborted.
  bool get(AVPacket* packet, Entry& entry);

  int serial() const;
  double discardBefore() const;
  size_t count() const;
  int64_t bytes() const;
  // Sum of the queued packets' durations, in the stream's time base.
  int64_t duration() const;

 private:
  struct Item {
    AVPacket* packet;  // owned
    int serial;
  };

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Item> items_;  // guarded by mutex_
  int serial_ = 0;          // guarded by mutex_
  double discardBefore_ = 0;
  int64_t bytes_ = 0;
  int64_t duration_ = 0;
  bool aborted_ = false;
};

}  // namespace nembra::player
