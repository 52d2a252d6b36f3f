// Every transfer of a media file to the service and the small per-media requests around it, as
// one object the endpoints and hosts call. It hands each job to the class that does it:
//   MediaUrls        the REST bases and media file URLs of each type
//   MediaUploader    the upload flow, its journal, the Wi-Fi hold and lost-connection actions
//   UploadResumption restarting uploads a killed process left unfinished
//   MediaRequests    index, get, update, delete and a video's original-stream description
//   MediaDownloader  downloads into the local cache
//   VideoCovers      a video's cover, from the service or grabbed from a local file
//   VideoConversion  converting a local video to a small MP4 before it is uploaded
//
// Answers reach the callbacks as the connection delivers them: an HTTP error status is an
// ordinary answer, read from the response, never turned into an error here.
//
// A file handed in is deleted only once the service has answered its confirm (or by the
// lost-connection action 554, or cancelUpload with deleteFile), whatever is killed when.
//
// Threading: call every member from the main queue of the application object. Delegate calls
// and the upload flow's callbacks (the upload-URL callback, progress, the confirm callback) run
// on the main queue. getWithType, updateWithType, deleteWithType, indexWithType and
// getOriginalStreamDescriptionForVideoByToken call back on the connection's callback queue, as
// the connection delivers; one refused before any request (a token that is not safe) is answered
// on the main queue. Downloads and covers call back on the main queue, a cover found in the
// cache at once. Destroy the handler on the main queue; callbacks still on their way are then
// dropped.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "nembra/error.h"
#include "nembra/json.h"
#include "nembra/media_callbacks.h"
#include "nembra/thumbnail_cache.h"

namespace nembra {

// The SDK's own parts the handler is built on; hosts never need them.
class FrameGrabber;
class HttpClient;
class ImageCodec;
class MediaConverter;
class Nembra;
class NotificationCenter;
class Reachability;
class Timer;
class UploadJournal;
class MediaUploader;
class UploadResumption;
class MediaRequests;
class MediaDownloader;
class VideoCovers;
class VideoConversion;

class NembraUploadingHandler {
 public:
  using TaskHandle = MediaCallbacks::TaskHandle;
  using JsonCallback = MediaCallbacks::JsonCallback;
  using StringCallback = MediaCallbacks::StringCallback;
  using ProgressCallback = MediaCallbacks::ProgressCallback;
  using DownloadCallback = MediaCallbacks::DownloadCallback;
  using ImageCallback = MediaCallbacks::ImageCallback;
  using LocalImageCallback = MediaCallbacks::LocalImageCallback;

  // What the handler reaches the platform through; an empty member gets the real one (the SDK's
  // tests inject their own).
  struct Seams {
    std::unique_ptr<HttpClient> downloadClient;  // made when first needed
    std::unique_ptr<FrameGrabber> frameGrabber;
    std::unique_ptr<ImageCodec> imageCodec;
    std::unique_ptr<MediaConverter> converter;
    std::string journalDirectory;  // "": UploadJournal::directoryFor the application's token
  };

  // initWithNembraApplication: the owner must outlive the handler.
  explicit NembraUploadingHandler(Nembra& application);
  NembraUploadingHandler(Nembra& application, Seams seams);
  ~NembraUploadingHandler();

  NembraUploadingHandler(const NembraUploadingHandler&) = delete;
  NembraUploadingHandler& operator=(const NembraUploadingHandler&) = delete;

  // MediaUrls' apiUrl and mediaUrl for the owner's configuration and token.
  std::string getApiUrlWithType(int type, const std::string& path);
  std::string getPathWithType(int type, const std::string& token);

  // The upload flow with no callbacks.
  void uploadWithType(int type, const std::string& path, const Json& data);
  // Removes every "file://" from |path|, then uploadUrlWithType.
  TaskHandle uploadWithType(int type, const std::string& path, const Json& data,
                            JsonCallback callback, ProgressCallback progress,
                            JsonCallback confirmCallback);
  // Starts the upload flow of the file at |path| with |data| as the upload-URL request's
  // parameters (MediaUploader::upload). An unknown type is not refused: its URLs are "", so the
  // connection answers with its error.
  TaskHandle uploadUrlWithType(int type, const std::string& path, const Json& data,
                               JsonCallback callback, ProgressCallback progress,
                               JsonCallback confirmCallback);

  // GET the type's collection: a JSON array, or the body as text. Pass the callback as a
  // JsonCallback or StringCallback: a bare lambda fits both.
  TaskHandle indexWithType(int type, const Json& data, JsonCallback callback);
  TaskHandle indexWithType(int type, const Json& data, StringCallback stringCallback);
  // GET one media: for AUDIO the reply's "audio" member, for IMAGE its "image" member, for VIDEO
  // the whole reply.
  TaskHandle getWithType(int type, const std::string& token, const Json& data,
                         JsonCallback callback);
  // POST |data| to "/<token>" when |streamToken| is the empty text, else to
  // "/<token>/streams/<streamToken>"; an absent stream token takes the stream form with the
  // text "(null)", as the service's clients always sent it.
  TaskHandle updateWithType(int type, const std::string& token,
                            const std::optional<std::string>& streamToken, const Json& data,
                            JsonCallback callback);
  // DELETE with the same path rule; the callback, then the delegate's deleteWithToken on the
  // main queue.
  TaskHandle deleteWithType(int type, const std::string& token,
                            const std::optional<std::string>& streamToken, JsonCallback callback);
  // Fetches the media file afresh into the cache (a cached copy is deleted first), trims the
  // type's cache and calls back with the cached path. The blocking read runs on the main queue.
  void downloadWithType(int type, const std::string& token, DownloadCallback callback);

  // A video's cover from the service ("/<token>/image"), kept in thumbCache under the token.
  TaskHandle getImageForVideoByToken(const std::string& token, const Json& data,
                                     ImageCallback callback);
  // The picture at 0 s of the local file, at most 1920×1080, kept in thumbCache under the path.
  void getImageForVideoByPath(const std::string& path, LocalImageCallback callback);
  // The two above with the cache given: the videos endpoint keeps a cache of its own.
  TaskHandle fetchCover(const std::string& token, const Json& data, ThumbnailCache& cache,
                        ImageCallback callback);
  void grabCover(const std::string& path, ThumbnailCache& cache, LocalImageCallback callback);
  // The "original_stream" of the video's description ("/<token>" under the video base).
  TaskHandle getOriginalStreamDescriptionForVideoByToken(const std::string& token,
                                                         JsonCallback callback);

  // Converts the video at |path| to a small MP4, then uploads that as VIDEO (VideoConversion).
  // Callbacks as uploadWithType.
  void convertToMp4WithPath(const std::string& path, const Json& data, JsonCallback callback,
                            ProgressCallback progress, JsonCallback confirmCallback);

  // Cancels the transfer of |path| (the last transfer started when none of |path| runs): it ends
  // with a Cancelled error and its end-of-transfer step runs, the lost-connection action
  // included. With |deleteFile| also deletes |path|.
  void cancelUpload(const std::string& path, bool deleteFile);
  // Invalidates uploadTimer when it is valid.
  void stopTimer();

  // Restarts every journaled upload no one is working on (UploadResumption). Returns how many.
  size_t resumeUnfinishedUploads();

  // Where reachability comes from and where its changes are announced; the shared manager's
  // target and the default center unless set (the SDK's tests inject their own).
  void setReachability(std::shared_ptr<Reachability> reachability, NotificationCenter& center);
  // How long action 552 waits before its first new attempt (doubling after each).
  void setReloadDelay(std::chrono::milliseconds first);

  // The task of the last transfer started.
  TaskHandle uploadTask() const;
  // Uploads started and not yet confirmed, failed or cancelled.
  size_t activeUploadCount() const;
  // Whether an upload of |path| is among them: after errorWithInfo, which names no file, a host
  // with several uploads running asks which of its files is no longer.
  bool isUploading(const std::string& path) const;
  ThumbnailCache& thumbCache() { return thumbCache_; }
  // The resume journal (api/upload_journal.h: the SDK and its tool).
  UploadJournal& journal();

  // A timer (the SDK's platform/dispatch/timer.h) that may be armed for periodic work; the
  // handler only ever invalidates it, at the start and end of each upload.
  std::unique_ptr<Timer> uploadTimer;

 private:
  Nembra& application_;
  ThumbnailCache thumbCache_;
  std::unique_ptr<MediaRequests> requests_;
  std::unique_ptr<MediaDownloader> downloader_;
  std::unique_ptr<VideoCovers> covers_;
  std::unique_ptr<MediaUploader> uploader_;
  std::unique_ptr<UploadResumption> resumption_;
  std::unique_ptr<VideoConversion> conversion_;
  // Main-queue tasks hold it weakly and do nothing once it is gone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace nembra
