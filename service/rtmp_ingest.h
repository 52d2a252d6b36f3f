// The RTMP ingest: nginx with its RTMP module, started as this service's child with its own
// prefix, configuration and logs under DIR/rtmp, and stopped with the service. It accepts the
// publish target the SDK's live hand-off builds (application "record", stream name
// "applications/APP/videos/VIDEO/streams/STREAM/video.mp4"), asks the service whether each
// publish may start, and records it as FLV. When a recording is done, it is remuxed to MP4
// (+faststart) on the ingest queue and becomes the file of the stream its name names.
//
// nginx reaches the service through three callback routes under a secret path:
// /rtmp-hooks/SECRET/{publish,publish_done,record_done}.
//
// Threading: start() and stop() from the owner's thread; the callback routes on HTTP worker
// threads; remuxing on the serial queue "com.nembra.service.ingest".
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/dispatch/serial_queue.h"
#include "platform/media/media_remuxer.h"
#include "platform/system/child_process.h"
#include "service/data_directory.h"
#include "service/media_library.h"
#include "service/route_table.h"
#include "service/session_registry.h"

namespace nembra {

class RtmpIngest {
 public:
  using Log = std::function<void(const std::string&)>;

  // What the stream name of a publish names.
  struct StreamName {
    std::string application;
    std::string video;
    std::string stream;
  };

  RtmpIngest(MediaLibrary& library, SessionRegistry& sessions, const DataDirectory& directory,
             std::unique_ptr<MediaRemuxer> remuxer, Log log);
  // Stops nginx, then finishes the recordings already queued.
  ~RtmpIngest();

  // The nginx binary and its RTMP module, when this machine has both.
  static std::optional<std::string> findNginx();
  static std::optional<std::string> findRtmpModule();

  // Writes the configuration and starts nginx listening on |host|:|port|, calling back to
  // |hooksBase| ("http://host:port" of this service). Returns once nginx listens, or the reason
  // it could not start.
  OptionalError start(const std::string& host, int port, const std::string& hooksBase);
  void stop();
  bool running() const { return nginx_ != nullptr; }

  void registerRoutes(RouteTable& routes);

  // "applications/APP/videos/VIDEO/streams/STREAM/video.mp4", with every token safe.
  static std::optional<StreamName> parseStreamName(const std::string& name);

 private:
  void onPublish(RestRequest& request);
  void onPublishDone(RestRequest& request);
  void onRecordDone(RestRequest& request);
  void storeRecording(const StreamName& name, const std::string& flvPath);
  bool checkSecret(RestRequest& request) const;

  MediaLibrary& library_;
  SessionRegistry& sessions_;
  const DataDirectory& directory_;
  std::unique_ptr<MediaRemuxer> remuxer_;
  Log log_;
  const std::string secret_;
  std::unique_ptr<ChildProcess> nginx_;
  std::unique_ptr<SerialQueue> queue_;  // last: it runs tasks that use the members above
};

}  // namespace nembra
