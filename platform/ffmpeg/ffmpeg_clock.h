// A media clock: the media time that was current at some moment, running on with the system's
// monotonic time until it is set again or paused. The audio output sets the audio clock each
// time it pulls samples; the video thread sets the video clock on each picture; the external
// clock times files without sound.
//
// A clock is stamped with the serial of the data that set it; after a seek it reads NaN until
// data of the new serial sets it (see PacketQueue).
//
// Threading: any thread.
#pragma once

#include <mutex>

namespace nembra::player {

class Clock {
 public:
  // Seconds of the monotonic clock.
  static double now();

  // NaN when never set, or set by data older than |currentSerial|.
  double get(int currentSerial) const;
  // The time regardless of serial; NaN when never set.
  double time() const;
  void set(double pts, int serial) { setAt(pts, serial, now()); }
  void setAt(double pts, int serial, double at);
  // A paused clock reads the time it had when paused.
  void setPaused(bool paused);
  bool paused() const;
  int serial() const;

 private:
  double timeLocked(double at) const;

  mutable std::mutex mutex_;
  double pts_ = 0;
  double drift_ = 0;  // pts minus the system time it was set at
  int serial_ = -1;
  bool paused_ = false;
  bool set_ = false;
};

}  // namespace nembra::player
