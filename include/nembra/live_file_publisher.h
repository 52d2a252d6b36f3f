// Publishes a media file live to an RTMP ingest, as a recorder's live hand-off does: the file is
// read in real time (or as fast as the network takes it), its H.264 and AAC passed through, and
// sent from threads of the publisher's own. MP4 and QuickTime files are read by the SDK's
// built-in reader; other containers through the FFmpeg media plug-in.
//
// A live video made with NembraVideos::createLiveVideoWithData is published with the
// configuration's wowza_url as |url| and "applications/APP/videos/VIDEO/streams/STREAM/video.mp4"
// as |streamName|, then submitted with recorderSubmitWithVideoToken.
//
// Threading: call start, finish and the accessors from one owner thread; requestStop also from
// any other thread. No callbacks leave the publisher.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "nembra/error.h"

namespace nembra {

struct LiveFilePublisherOptions {
  // The ingest address, as the configuration's wowza_url gives it. With two path segments or
  // more the application is every segment but the last ("rtmp://host:1935/record/_definst_"
  // publishes to "record"), with one it is that segment.
  std::string url;
  // The name the stream is published under.
  std::string streamName;
  double duration = 0.0;  // seconds of media to send; 0: the whole file
  bool realTime = true;   // false: as fast as the network takes it
  std::chrono::milliseconds publishTimeout{10'000};
};

struct LiveFilePublisherStats {
  double elapsed = 0.0;    // wall seconds since publishing started
  double mediaTime = 0.0;  // stamp of the last sample sent
  uint64_t videoFrames = 0;
  uint64_t audioFrames = 0;
  uint64_t bytes = 0;  // media bytes handed to the connection
};

class LiveFilePublisher {
 public:
  explicit LiveFilePublisher(LiveFilePublisherOptions options);
  // finish()
  ~LiveFilePublisher();
  LiveFilePublisher(const LiveFilePublisher&) = delete;
  LiveFilePublisher& operator=(const LiveFilePublisher&) = delete;

  // Opens |path|, connects, waits until the ingest accepts the stream and starts sending. The
  // error says why not (a File or Media error for the file, Transport for the ingest); start may
  // then be called again.
  OptionalError start(const std::string& path);

  // Ends the stream soon: reading stops and what is queued is dropped.
  void requestStop();
  // True once the stream has ended by itself (the file or |duration| ended), failed or was
  // stopped; also before start.
  bool done() const;
  // Waits up to |timeout| for done(); returns it.
  bool waitDone(std::chrono::milliseconds timeout) const;
  // Why the stream failed (the ingest's or the connection's message); empty while fine and
  // after requestStop.
  std::string failure() const;
  // Stops the stream when it has not ended yet, waits for the publisher's threads and closes
  // the connection (unpublishing). Wait with waitDone first to send the whole file.
  void finish();

  LiveFilePublisherStats stats() const;

  // Where the streaming core's event lines go ("RTMP client connected", one per event, without
  // the line feed), from any of its threads: standard output unless a sink is set; an empty sink
  // restores standard output. Process-wide.
  static void setEventLog(std::function<void(const std::string& line)> sink);

 private:
  struct Impl;
  LiveFilePublisherOptions options_;
  std::unique_ptr<Impl> impl_;
};

}  // namespace nembra
