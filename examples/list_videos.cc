// A host application in miniature: creates the application object, points it at a service,
// lists the application's videos and prints them from the main queue.
//
//   example_list_videos http://127.0.0.1:8080 my-app-token
#include <nembra/nembra.h>

#include <cstdio>
#include <optional>
#include <string>

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s SERVER_URL APPLICATION_TOKEN\n", argv[0]);
    return 2;
  }
  nembra::MainQueue& main = nembra::MainQueue::shared();
  nembra::Nembra app(argv[2], main);
  app.config().useSingleServer(argv[1]);

  int exitCode = 1;
  const std::string url =
      app.config().server_api_url + "/v1/applications/" + app.token() + "/videos";
  app.connect().getJsonArrayWithPath(
      url, nembra::Json{{"limit", 20}},
      [&](const std::optional<nembra::Json>& json, const nembra::HttpResponse& response,
          const nembra::OptionalError& error) {
        // The connection calls back on its own queue; models are handled on the main queue.
        main.async([&, json, response, error] {
          // A body of two bytes or fewer ("[]", no videos yet) gives no JSON.
          if (error || response.status != 200 || (json && !json->is_array())) {
            std::fprintf(stderr, "listing failed: %s\n",
                         error ? error->message.c_str()
                               : ("HTTP " + std::to_string(response.status)).c_str());
          } else {
            for (const auto& item : json.value_or(nembra::Json::array())) {
              nembra::Video video = nembra::Video::initWithJson(item);
              std::printf("%s  %-30s %.1f s\n", video.token.c_str(), video.title.c_str(),
                          video.duration);
            }
            exitCode = 0;
          }
          main.stop();
        });
      });
  main.run();
  return exitCode;
}
