// The sample handler of a screen broadcast: it writes the screen's frames and the microphone's
// sound into one QuickTime movie in the temporary directory and, when the broadcast finishes,
// moves the movie into the application group's shared directory
// ("com.nembra.screen-recording"), where the main application picks it up for upload. It never
// talks to the service. A host subclasses it and names its group in getApplicationGroup.
//
//   Idle -broadcastStarted-> Prepared -first frame-> Writing (isRecordingVideo)
//   -broadcastFinished-> Finishing -completion-> Moved (isRecordingVideo cleared)
// A failure while preparing leaves it without a writer: samples and finishing then do nothing.
//
// Threading: samples and broadcastFinished on the broadcast's thread; the writer's completion
// on the writer's thread. isRecordingVideo is the flag they share. Logging goes to the plain
// log (standard error unless setLog says otherwise), never to a delegate.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "capture/screen_movie_writer.h"
#include "platform/media/media_source_raw_frame.h"

namespace nembra {

// The broadcast's sample kinds.
enum class SampleBufferType { Video = 1, AudioApp = 2, AudioMic = 3 };

class NembraScreenRecorderSampleHandler {
 public:
  NembraScreenRecorderSampleHandler();
  virtual ~NembraScreenRecorderSampleHandler();

  // The application group whose shared directory receives the movies. The base logs a warning
  // and returns "".
  virtual std::string getApplicationGroup();

  // The broadcast's operations. The setup information is not used.
  void broadcastStartedWithSetupInfo(const std::map<std::string, std::string>& setupInfo);
  // |seconds| is the sample's presentation time on the broadcast's clock.
  void processSampleBuffer(const RawMediaFrame& sample, double seconds, SampleBufferType type);
  void broadcastPaused() {}
  // Blocks until the movie has been moved, looking again every pollInterval (one second).
  void broadcastFinished();

  // What the broadcast provides: the main screen's size in points and the writer's maker.
  void setMainScreenBounds(double width, double height) {
    screenWidth_ = width;
    screenHeight_ = height;
  }
  void setWriterFactory(ScreenMovieWriterFactory factory) { writerFactory_ = std::move(factory); }
  void setLog(std::function<void(const std::string&)> log) { log_ = std::move(log); }
  void setPollInterval(std::chrono::milliseconds interval) { pollInterval_ = interval; }

  const std::string& videoOutputFullFileName() const { return videoOutputFullFileName_; }
  bool isRecordingVideo() const { return isRecordingVideo_.load(); }
  // Where the movie went, once moved ("" until then).
  std::string movedTo() const;
  ScreenMovieWriter* videoWriter() const { return videoWriter_.get(); }

 protected:
  void log(const std::string& line) const;

 private:
  void captureOutput(const RawMediaFrame& sample, double seconds);
  void captureAudioOutput(const RawMediaFrame& sample, double seconds);
  void finishWritingCompleted();

  std::unique_ptr<ScreenMovieWriter> videoWriter_;
  bool hasVideoInput_ = false;
  bool hasAudioInput_ = false;
  std::string videoOutputFullFileName_;
  std::atomic<bool> isRecordingVideo_{false};
  double screenWidth_ = 0;
  double screenHeight_ = 0;
  ScreenMovieWriterFactory writerFactory_;
  std::function<void(const std::string&)> log_;
  std::chrono::milliseconds pollInterval_{1000};
  mutable std::mutex movedMutex_;
  std::string movedTo_;  // guarded by movedMutex_
};

}  // namespace nembra
