// Uploads a media file with the application object and prints its progress: the file's extension
// picks the type (mp4, mov, avi: video; mp3, wav, aac: audio; png, jpg, jpeg, bmp: image), the
// SDK asks the service for an upload URL, sends the file to storage and confirms it. Like a
// finished recording, the file is deleted once the service has confirmed it: hand in a copy.
//
//   example_upload_with_progress http://127.0.0.1:8080 my-app-token clip.mp4
#include <nembra/nembra.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s SERVER_URL APPLICATION_TOKEN FILE\n", argv[0]);
    return 2;
  }
  const std::string path = argv[3];
  nembra::MainQueue& main = nembra::MainQueue::shared();
  nembra::Nembra app(argv[2], main);
  app.config().useSingleServer(argv[1]);

  // Every callback and delegate call below runs on the main queue, which main.run() drives.
  int exitCode = 1;
  auto fail = [&](const std::string& what) {
    std::fprintf(stderr, "\nupload failed: %s\n", what.c_str());
    main.stop();
  };

  // The delegate hears of the whole flow: which media the file became, and a transfer that
  // fails after the upload URL was given.
  auto delegate = std::make_shared<nembra::NembraUploadingDelegate>();
  delegate->uploadVerifiedWithPath = [&](const std::string&, const std::string& token,
                                         const std::string&, const nembra::HttpResponse& response,
                                         const nembra::OptionalError& error,
                                         const std::optional<nembra::Json>&) {
    if (error) return fail(error->message);
    if (!nembra::ReplyStatus::isSuccess(response.status)) {
      return fail("the confirm answered HTTP " + std::to_string(response.status));
    }
    std::printf("\nuploaded as %s %s\n",
                nembra::mediaTypeName(nembra::Nembra::mediaTypeForPath(path)), token.c_str());
    exitCode = 0;
    main.stop();
  };
  delegate->errorWithInfo = [&](const std::optional<nembra::Json>&, const nembra::Error& error,
                                int32_t) { fail(error.message); };
  app.setUploadingDelegate(delegate);

  app.uploadFromPath(
      path, nembra::Json{{"title", "uploaded by an example"}},
      // The upload-URL answer: the file is on its way, or why it is not.
      [&](const std::optional<nembra::Json>&, const nembra::HttpResponse&,
          const nembra::OptionalError& error) {
        if (error) fail(error->message);
      },
      [](int64_t sent, int64_t expected) {
        std::printf("\r%lld of %lld bytes sent", static_cast<long long>(sent),
                    static_cast<long long>(expected));
        std::fflush(stdout);
      },
      // No confirm callback: the delegate's uploadVerifiedWithPath tells it, with the token.
      nullptr);
  main.run();
  return exitCode;
}
