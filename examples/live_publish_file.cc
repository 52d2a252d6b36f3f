// Publishes a media file live, as a recorder hands a live recording to the service: creates a
// live video, publishes the file to the service's RTMP ingest in real time, then submits the
// stream, which the service turns into the video's file.
//
//   example_live_publish_file http://127.0.0.1:8080 my-app-token clip.mp4
#include <nembra/nembra.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <string>

namespace {

struct Answer {
  std::optional<nembra::Json> json;
  nembra::HttpResponse response;
  nembra::OptionalError error;
};

// The failure an answer carries, or "" when it is a 2xx answer.
std::string failureOf(const Answer& answer) {
  if (answer.error) return answer.error->message;
  if (!nembra::ReplyStatus::isSuccess(answer.response.status)) {
    return "HTTP " + std::to_string(answer.response.status);
  }
  return "";
}

// Runs the main queue until |answer| has arrived (the videos endpoint answers these two requests
// on the connection's own queue; they are handed to the main queue here).
bool awaitAnswer(nembra::MainQueue& main, const std::optional<Answer>& answer) {
  return main.runUntil([&] { return answer.has_value(); }, std::chrono::seconds(30));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s SERVER_URL APPLICATION_TOKEN FILE\n", argv[0]);
    return 2;
  }
  nembra::MainQueue& main = nembra::MainQueue::shared();
  nembra::Nembra app(argv[2], main);
  app.config().useSingleServer(argv[1]);
  auto onMain = [&main](std::optional<Answer>& slot) {
    return
        [&main, &slot](const std::optional<nembra::Json>& json,
                       const nembra::HttpResponse& response, const nembra::OptionalError& error) {
          main.async([&slot, answer = Answer{json, response, error}] { slot = answer; });
        };
  };

  // 1. A live video: its token, its first stream's, and where to publish.
  std::optional<Answer> created;
  app.videos().createLiveVideoWithData(nembra::Json{{"title", "published by an example"}},
                                       onMain(created));
  if (!awaitAnswer(main, created) || !failureOf(*created).empty() || !created->json) {
    std::fprintf(stderr, "cannot create a live video: %s\n",
                 created ? failureOf(*created).c_str() : "no answer");
    return 1;
  }
  const nembra::Json& reply = *created->json;
  const std::string video = reply["video"].value("token", "");
  const std::string stream = reply["stream"].value("token", "");
  // The service says where its ingest listens; otherwise the configuration's address and the
  // stream name every Nembra ingest takes.
  nembra::LiveFilePublisherOptions options;
  options.url = app.config().wowza_url;
  options.streamName =
      "applications/" + app.token() + "/videos/" + video + "/streams/" + stream + "/video.mp4";
  if (reply.contains("rtmp")) {
    options.url = reply["rtmp"].value("url", options.url);
    options.streamName = reply["rtmp"].value("stream_name", options.streamName);
  }

  // 2. The file, in real time. The streaming core's event lines are for debugging.
  nembra::LiveFilePublisher::setEventLog([](const std::string&) {});
  nembra::LiveFilePublisher publisher(options);
  if (auto error = publisher.start(argv[3])) {
    std::fprintf(stderr, "cannot publish %s to %s: %s\n", argv[3], options.url.c_str(),
                 error->message.c_str());
    return 1;
  }
  std::printf("live video %s: publishing %s to %s\n", video.c_str(), argv[3], options.url.c_str());
  while (!publisher.waitDone(std::chrono::seconds(1))) {
    const nembra::LiveFilePublisherStats stats = publisher.stats();
    std::printf("  %.1f s sent, %llu bytes\n", stats.mediaTime,
                static_cast<unsigned long long>(stats.bytes));
    std::fflush(stdout);
  }
  const std::string failure = publisher.failure();
  publisher.finish();
  if (!failure.empty()) {
    std::fprintf(stderr, "the stream failed: %s\n", failure.c_str());
    return 1;
  }
  const nembra::LiveFilePublisherStats sent = publisher.stats();
  std::printf("sent %llu pictures and %llu audio frames\n",
              static_cast<unsigned long long>(sent.videoFrames),
              static_cast<unsigned long long>(sent.audioFrames));

  // 3. Submitted: the recording becomes the video's file.
  std::optional<Answer> submitted;
  app.videos().recorderSubmitWithVideoToken(video, stream, nembra::Json::object(),
                                            onMain(submitted));
  if (!awaitAnswer(main, submitted) || !failureOf(*submitted).empty()) {
    std::fprintf(stderr, "submit failed: %s\n",
                 submitted ? failureOf(*submitted).c_str() : "no answer");
    return 1;
  }
  std::printf("submitted video %s\n", video.c_str());
  return 0;
}
