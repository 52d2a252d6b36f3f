// Runs every transfer of a media file to the service and the small per-media requests around
// it: the three-step upload (ask for an upload URL, post the file to the storage URL as a
// multipart form, confirm), get, update, delete, index, download into the local cache, a video's
// cover (from the service or grabbed from a local file) and its original-stream description.
//
// Every upload is journaled (UploadJournal) from its start until the service has confirmed it,
// so resumeUnfinishedUploads() in a later process finishes what a killed one left. A file handed
// in is deleted only once the service has answered its confirm (or by the lost-connection
// action 554, or cancelUpload with deleteFile), whatever is killed when.
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

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "nembra/error.h"
#include "nembra/http_message.h"
#include "nembra/http_task.h"
#include "nembra/json.h"
#include "nembra/still_image.h"
#include "nembra/thumbnail_cache.h"

namespace nembra {

// The SDK's own parts the handler is built on; hosts never need them.
class ConcurrentQueue;
class FileSystem;
class FrameGrabber;
class HttpClient;
class ImageCodec;
class MediaConverter;
class Nembra;
class NotificationCenter;
class Reachability;
class Timer;
class UploadJournal;

class NembraUploadingHandler {
 public:
  using TaskHandle = std::shared_ptr<HttpTask>;
  using JsonCallback = std::function<void(
      const std::optional<Json>& json, const HttpResponse& response, const OptionalError& error)>;
  using StringCallback =
      std::function<void(const std::optional<std::string>& text, const HttpResponse& response,
                         const OptionalError& error)>;
  using ProgressCallback = std::function<void(int64_t totalBytesSent, int64_t totalBytesExpected)>;
  // The cached file's path, or nothing with the reason.
  using DownloadCallback =
      std::function<void(const std::optional<std::string>& path, const OptionalError& error)>;
  using ImageCallback = std::function<void(StillImagePtr image, const HttpResponse& response,
                                           const OptionalError& error)>;
  using LocalImageCallback = std::function<void(StillImagePtr image, const OptionalError& error)>;

  // What the handler reaches the platform through; an empty member gets the real one (the SDK's
  // tests inject their own).
  struct Seams {
    std::unique_ptr<HttpClient> downloadClient;  // made when first needed
    std::unique_ptr<FrameGrabber> frameGrabber;
    std::unique_ptr<ImageCodec> imageCodec;
    std::unique_ptr<MediaConverter> converter;
    std::string journalDirectory;  // "": UploadJournal::directoryFor the application's token
  };

  // A storage that keeps failing would otherwise make action 552 create new media forever.
  static constexpr int kDefaultReloadLimit = 5;
  // A journaled storage form this close to its expiry is not tried again: a new URL is asked.
  static constexpr std::chrono::seconds kFormExpiryMargin{60};

  // initWithNembraApplication: the owner must outlive the handler.
  explicit NembraUploadingHandler(Nembra& application);
  NembraUploadingHandler(Nembra& application, Seams seams);
  ~NembraUploadingHandler();

  NembraUploadingHandler(const NembraUploadingHandler&) = delete;
  NembraUploadingHandler& operator=(const NembraUploadingHandler&) = delete;

  // The REST base of |type| followed by |path|: videos on server_api_url, audios and images on
  // dev_server_api_url (deliberately apart, as the service is deployed); "" for another type.
  std::string getApiUrlWithType(int type, const std::string& path);
  // The media file URL of |token|: videos on cdn_api_url, audios and images on file_server_url;
  // "" for another type.
  std::string getPathWithType(int type, const std::string& token);

  // The upload flow with no callbacks.
  void uploadWithType(int type, const std::string& path, const Json& data);
  // Removes every "file://" from |path|, then uploadUrlWithType.
  TaskHandle uploadWithType(int type, const std::string& path, const Json& data,
                            JsonCallback callback, ProgressCallback progress,
                            JsonCallback confirmCallback);
  // Starts the upload flow of the file at |path| with |data| as the upload-URL request's
  // parameters. Returns that request's task; nothing when the uploader is turned off (then
  // nothing at all happens) or when the file or type is refused before any request (the
  // callback and the delegate's errorWithError then say why). |callback| gets the upload-URL
  // answer, with an error also when the answer is unusable (an HTTP error status, no
  // "url_data", no tokens); |progress| the bytes sent; |confirmCallback| the confirm answer.
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

  // Converts the video at |path| to a small MP4 ("video.mp4" in the documents directory,
  // replaced) on a background queue, then uploads that as VIDEO; a file that cannot be
  // converted, or whose conversion fails, is uploaded as it is. Callbacks as uploadWithType.
  void convertToMp4WithPath(const std::string& path, const Json& data, JsonCallback callback,
                            ProgressCallback progress, JsonCallback confirmCallback);

  // Cancels the transfer of |path| (the last transfer started when none of |path| runs); with
  // |deleteFile| also deletes |path|. A cancel is not a lost connection: no lost-connection
  // action runs for it, and the delegate's errorWithInfo gets a Cancelled error.
  void cancelUpload(const std::string& path, bool deleteFile);
  // Invalidates uploadTimer when it is valid.
  void stopTimer();

  // Restarts every journaled upload no one is working on: a file whose storage form is still
  // valid is posted again (a presigned form cannot resume mid-body), one whose form expired or
  // that never got one asks for a new upload URL, one that reached storage is confirmed. They
  // report through the delegate only. Returns how many were restarted.
  size_t resumeUnfinishedUploads();

  // Where reachability comes from and where its changes are announced; the shared manager's
  // target and the default center unless set (the SDK's tests inject their own).
  void setReachability(std::shared_ptr<Reachability> reachability, NotificationCenter& center);
  void setReloadLimit(int limit) { reloadLimit_ = limit; }

  // The task of the last transfer started.
  TaskHandle uploadTask() const { return uploadTask_; }
  // Uploads started and not yet confirmed, failed or cancelled.
  size_t activeUploadCount() const { return live_.size(); }
  // Whether an upload of |path| is among them: after errorWithInfo, which names no file, a host
  // with several uploads running asks which of its files is no longer.
  bool isUploading(const std::string& path) const;
  ThumbnailCache& thumbCache() { return thumbCache_; }
  // The resume journal (api/upload_journal.h: the SDK and its tool).
  UploadJournal& journal() { return *journal_; }

  // A timer (the SDK's platform/dispatch/timer.h) that may be armed for periodic work; the
  // handler only ever invalidates it, at the start and end of each upload.
  std::unique_ptr<Timer> uploadTimer;

 private:
  struct Transfer;
  using TransferPtr = std::shared_ptr<Transfer>;

  TransferPtr newTransfer(int type, const std::string& path, const Json& data,
                          JsonCallback callback, ProgressCallback progress,
                          JsonCallback confirmCallback);
  TaskHandle startFlow(const TransferPtr& transfer);
  TaskHandle requestUploadUrl(const TransferPtr& transfer);
  void onUploadUrlReply(const TransferPtr& transfer, const std::optional<Json>& json,
                        const HttpResponse& response, OptionalError error);
  void startTransfer(const TransferPtr& transfer);
  void launchTransfer(const TransferPtr& transfer);
  void onTransferProgress(const TransferPtr& transfer);
  void onTransferEnded(const TransferPtr& transfer, const HttpResponse& response,
                       OptionalError error);
  void handleTransferFailure(const TransferPtr& transfer, const Error& failure);
  void sendConfirm(const TransferPtr& transfer);
  void onConfirmReply(const TransferPtr& transfer, const std::optional<Json>& json,
                      const HttpResponse& response, OptionalError error);
  void uploadCompletedWithType(int type, const std::string& path, const std::string& token,
                               const std::string& streamToken,
                               const std::optional<Json>& confirmJsonObject,
                               const HttpResponse& confirmResponse,
                               const OptionalError& confirmError);
  void restart(const TransferPtr& transfer);
  void finish(const TransferPtr& transfer, bool keepRecord);
  void writeRecord(const TransferPtr& transfer);

  void onReachabilityChanged();
  void watchReachability();
  void unwatchReachabilityIfIdle();
  bool holdsForWifi(int status) const;

  // Runs |task| on the main queue unless the handler is gone by then.
  void onMain(std::function<void()> task);
  void failBeforeRequest(const TransferPtr& transfer, Error error);
  TaskHandle refuse(Error error, JsonCallback callback);
  std::string uploadUrlFor(int type);
  std::string confirmUrlFor(const Transfer& transfer);
  // Made on first use, on the main queue.
  FrameGrabber& frameGrabber();
  MediaConverter& mediaConverter();
  ImageCodec& imageCodec();
  HttpClient& downloadClient();

  Nembra& application_;
  FileSystem& fs_;
  Seams seams_;
  ThumbnailCache thumbCache_;
  std::unique_ptr<UploadJournal> journal_;
  int reloadLimit_ = kDefaultReloadLimit;

  std::shared_ptr<Reachability> reachability_;
  NotificationCenter* center_;
  std::optional<uint64_t> reachabilityObserver_;  // a NotificationCenter::Token

  TaskHandle uploadTask_;
  // Every unfinished flow, oldest first.
  std::list<TransferPtr> live_;

  // Main-queue tasks hold it weakly and do nothing once it is gone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  // Last: destroyed first, running what is posted to it while the members above still live.
  std::unique_ptr<ConcurrentQueue> background_;  // "com.nembra.uploads.background", 2 threads
};

}  // namespace nembra
