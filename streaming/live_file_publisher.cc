#include "nembra/live_file_publisher.h"

#include "platform/media/media_file_source.h"
#include "streaming/live_publisher.h"
#include "streaming/stream_log.h"
#include "streaming/uri.h"

namespace nembra {

struct LiveFilePublisher::Impl {
  std::unique_ptr<LivePublisher> publisher;
};

LiveFilePublisher::LiveFilePublisher(LiveFilePublisherOptions options)
    : options_(std::move(options)), impl_(std::make_unique<Impl>()) {}

LiveFilePublisher::~LiveFilePublisher() { finish(); }

OptionalError LiveFilePublisher::start(const std::string& path) {
  if (impl_->publisher) return Error::invalidArgument("the publisher has already started");
  if (options_.url.empty() || options_.streamName.empty()) {
    return Error::invalidArgument("publishing needs an ingest url and a stream name");
  }
  OptionalError error;
  std::unique_ptr<MediaSource> source = openMediaFileSource(path, error);
  if (!source) return error ? error : Error::media("cannot open " + path);

  LivePublisherOptions publish;
  // The client takes the application from every path segment but the last and is given the
  // stream name apart: an address of one segment gets a last one that names nothing.
  publish.targetAddress = options_.url;
  if (Uri::Parse(options_.url).GetSegments().size() < 2) {
    publish.targetAddress += options_.url.ends_with("/") ? "-" : "/-";
  }
  publish.streamName = options_.streamName;
  publish.duration = options_.duration;
  publish.realTime = options_.realTime;
  publish.publishTimeout = options_.publishTimeout;

  auto publisher = std::make_unique<LivePublisher>(std::move(source), publish);
  std::string failure;
  if (!publisher->start(failure)) return Error::transport(failure);
  impl_->publisher = std::move(publisher);
  return std::nullopt;
}

void LiveFilePublisher::requestStop() {
  if (impl_->publisher) impl_->publisher->requestStop();
}

bool LiveFilePublisher::done() const { return !impl_->publisher || impl_->publisher->done(); }

bool LiveFilePublisher::waitDone(std::chrono::milliseconds timeout) const {
  return !impl_->publisher || impl_->publisher->waitDone(timeout);
}

std::string LiveFilePublisher::failure() const {
  return impl_->publisher ? impl_->publisher->failure() : std::string();
}

void LiveFilePublisher::finish() {
  if (impl_ && impl_->publisher) impl_->publisher->finish();
}

LiveFilePublisherStats LiveFilePublisher::stats() const {
  LiveFilePublisherStats stats;
  if (!impl_->publisher) return stats;
  const LivePublisherStats current = impl_->publisher->stats();
  stats.elapsed = current.elapsed;
  stats.mediaTime = current.mediaTime;
  stats.videoFrames = current.sent.videoFrames;
  stats.audioFrames = current.sent.audioFrames;
  stats.bytes = current.sent.bytes;
  return stats;
}

void LiveFilePublisher::setEventLog(std::function<void(const std::string& line)> sink) {
  StreamLog::SetSink(std::move(sink));
}

}  // namespace nembra
