// One item being played: its demux thread, a decoder thread per stream, the frame queues, the
// clocks (audio as the master; an external system clock when there is no sound) and the two
// renderers. The engine makes one per item and closes it when the item is left.
//
// Threading: the operations may be called from any thread, one at a time (the engine calls
// them under its lock); none blocks on media I/O. The Listener is called on the session's
// threads (demux, video sync, audio output) and must not call back into the session.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "platform/ffmpeg/ffmpeg_audio_renderer.h"
#include "platform/ffmpeg/ffmpeg_clock.h"
#include "platform/ffmpeg/ffmpeg_decoder.h"
#include "platform/ffmpeg/ffmpeg_demuxer.h"
#include "platform/ffmpeg/ffmpeg_frame_queue.h"
#include "platform/ffmpeg/ffmpeg_packet_queue.h"
#include "platform/ffmpeg/ffmpeg_video_renderer.h"
#include "platform/media/media_player_engine.h"

namespace nembra::player {

class PlayerSession final : private Demuxer::Listener, private VideoRenderer::Listener {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    virtual void sessionReady(PlayerSession& session) = 0;
    virtual void sessionFailed(PlayerSession& session, const Error& error) = 0;
    // Waiting for data after opening, a seek or a stall (true), or playing on (false).
    virtual void sessionWaitingChanged(PlayerSession& session, bool waiting) = 0;
    // Played to the end (once per position: a seek afterwards may end it again).
    virtual void sessionEnded(PlayerSession& session) = 0;
  };

  // |surface| and |output| may be null; |output| must outlive the session.
  PlayerSession(uint64_t id, MediaPlayerItem item, std::shared_ptr<VideoSurface> surface,
                AudioOutput* output, Listener& listener);
  ~PlayerSession() override;
  PlayerSession(const PlayerSession&) = delete;
  PlayerSession& operator=(const PlayerSession&) = delete;

  void start(bool paused, bool muted);
  void setPaused(bool paused);
  void seek(double seconds);
  void setMuted(bool muted);
  double currentTime() const;
  double duration() const { return duration_.load(); }
  // Opening, seeking, or out of sound to play before the end.
  bool waiting() const { return waiting_.load() || starved_.load(); }
  // Joins every thread; returns within a few milliseconds even while a read is blocked.
  void close();
  // Pictures the video renderer skipped for being late.
  uint64_t droppedPictures();

  // Tells this session's reports from those of the sessions before it.
  uint64_t id() const { return id_; }

 private:
  OptionalError demuxerOpened(Demuxer::Opened& opened) override;
  void demuxerFailed(const Error& error) override;
  void demuxerSeeked(double seconds) override;
  void videoShown(int serial, double pts, bool first) override;
  void videoIdle() override;
  void afterAudioFill();

  // Opens the decoder of stream |index|; null (and |error| set) when it cannot.
  AvCodecContext openCodec(AVFormatContext* input, int index, std::string& error);
  double masterClock(int serial) const;
  void setWaiting(bool waiting);
  void setStarved(bool starved);
  void checkEnded();

  const uint64_t id_;
  const MediaPlayerItem item_;
  const std::shared_ptr<VideoSurface> surface_;
  AudioOutput* const output_;
  Listener& listener_;

  PacketQueue videoPackets_;
  PacketQueue audioPackets_;
  FrameQueue videoFrames_{3};
  FrameQueue audioFrames_{9};
  Clock audioClock_;
  Clock videoClock_;
  Clock externalClock_;
  std::unique_ptr<Demuxer> demuxer_;

  std::mutex mutex_;  // the pieces made once the input is open, and the play state
  std::unique_ptr<Decoder> videoDecoder_;
  std::unique_ptr<Decoder> audioDecoder_;
  std::unique_ptr<AudioRenderer> audioRenderer_;
  std::unique_ptr<VideoRenderer> videoRenderer_;
  bool paused_ = true;
  bool muted_ = false;
  bool closed_ = false;

  std::atomic<bool> pausedNow_{true};  // paused_, for the threads that must not lock
  std::atomic<bool> opened_{false};
  std::atomic<bool> hasAudio_{false};
  std::atomic<bool> hasVideo_{false};
  std::atomic<double> duration_{0};
  std::atomic<bool> waiting_{true};
  std::atomic<bool> starved_{false};
  // Set by seek() until the first data of the new position plays.
  std::atomic<bool> seeking_{false};
  std::atomic<double> seekTarget_{0};
  std::atomic<int> seekSerial_{-1};  // the serial the pending seek produced, -1 until done
  std::atomic<int> endedSerial_{-1};
  std::atomic<double> lastTime_{0};
};

}  // namespace nembra::player
