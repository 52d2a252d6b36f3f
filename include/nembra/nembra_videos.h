// The videos resource of the service: listing, reading, updating and deleting videos and their
// streams, media URLs, creating a video from a local file (create, optional cover, attach,
// submit), re-recording, and cover pictures with a thumbnail cache of its own.
//
// Answers reach the callbacks as the connection delivers them: an HTTP error status is an
// ordinary answer, for the caller to read from the response.
//
// Threading: call from the main queue. index, get and update convert the answer and call back on
// the main queue. The other requests and the multi-step flows (createVideoWithData,
// rerecordVideoWithToken) call back on the connection's callback queue, as it delivers; delegate
// calls go to the main queue. Covers call back as the upload handler's do. The one-at-a-time
// operation queue "com.nembra.videos" makes the temporary copies of files to upload.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "nembra/json.h"
#include "nembra/nembra_delegates.h"
#include "nembra/nembra_uploading_handler.h"
#include "nembra/still_image.h"
#include "nembra/thumbnail_cache.h"
#include "nembra/video.h"

namespace nembra {

class Nembra;
class SerialQueue;
class DirectoryWatcher;

class NembraVideos {
 public:
  using TaskHandle = NembraUploadingHandler::TaskHandle;
  using JsonCallback = NembraUploadingHandler::JsonCallback;
  using StringCallback = NembraUploadingHandler::StringCallback;
  using ProgressCallback = NembraUploadingHandler::ProgressCallback;
  using DownloadCallback = NembraUploadingHandler::DownloadCallback;
  using ImageCallback = NembraUploadingHandler::ImageCallback;
  using LocalImageCallback = NembraUploadingHandler::LocalImageCallback;
  using VideosCallback = std::function<void(
      const std::vector<Video>& videos, const HttpResponse& response, const OptionalError& error)>;
  using VideoCallback = std::function<void(const Video& video, const HttpResponse& response,
                                           const OptionalError& error)>;
  using TokenCallback =
      std::function<void(const std::optional<std::string>& token, const HttpResponse& response,
                         const OptionalError& error)>;

  explicit NembraVideos(Nembra& application);
  ~NembraVideos();

  // One Video per element of the answer; an answer that is not a JSON array gives none, with
  // the answer's own error.
  TaskHandle index(const Json& data, VideosCallback callback);
  TaskHandle index(const Json& data, StringCallback stringCallback);
  TaskHandle get(const std::string& token, const Json& data, VideoCallback callback);
  void download(const std::string& token, DownloadCallback callback);
  // "<cdn_api_url>/v1/applications/<app>/videos/<token>/video.mp4" and ".../image".
  std::string getVideoUrl(const std::string& token);
  std::string getImageUrl(const std::string& token);
  TaskHandle update(const std::string& token, const Json& data, VideoCallback callback);
  // With the video's own token and its toDictionary as data.
  TaskHandle update(const Video& video, VideoCallback callback);
  // Deletes the video, or only its stream |streamToken| when that is not empty, through the
  // upload handler's deleteWithType (so the uploading delegate hears deleteWithToken).
  TaskHandle destroy(const std::string& token, const std::string& streamToken,
                     JsonCallback callback);

  // An empty video with its first stream: the answer holds "video" and "stream".
  TaskHandle createEmptyVideoWithData(const Json& data, JsonCallback callback);
  // A video for live publishing.
  TaskHandle createLiveVideoWithData(const Json& data, JsonCallback callback);
  TaskHandle createStreamWithVideoToken(const std::string& token, const Json& data,
                                        JsonCallback callback);
  TaskHandle recorderSubmitWithVideoToken(const std::string& token, const std::string& streamToken,
                                          const Json& data, JsonCallback callback);
  // Posts |cover| as a JPEG body (re-encoded at the best quality unless it is one already) with
  // |data| in the query; the answer as a Video.
  TaskHandle attachCoverWithVideoToken(const std::string& token, const std::string& streamToken,
                                       const StillImage& cover, const Json& data,
                                       VideoCallback callback);
  // Sends |file| as a multipart upload to the stream's "videoattach" path; a body that is not
  // JSON gives a Parse error.
  TaskHandle attachVideoWithVideoToken(const std::string& token, const std::string& streamToken,
                                       const Json& data, const std::string& file,
                                       JsonCallback callback, ProgressCallback progress);

  TaskHandle getImageForVideoByToken(const std::string& token, const Json& data,
                                     ImageCallback callback);
  void getImageForVideoByPath(const std::string& path, LocalImageCallback callback);
  // A chosen cover replaces the generated thumbnail of |path|.
  void enforceImageForVideoByPath(const std::string& path, StillImagePtr image);
  // The "token" of the video's "default_stream".
  TaskHandle getDefaultStreamForVideoByToken(const std::string& token, TokenCallback callback);
  // The "original_stream" of "/videos/<token>", a path handed to the connection as it stands
  // rather than joined to the video base: kept, the service answers it there.
  TaskHandle getOriginalStreamDescriptionForVideoByToken(const std::string& token,
                                                         JsonCallback callback);

  // Uploads the local file at |path| through the upload handler's flow.
  TaskHandle create(const std::string& path, const Json& data, JsonCallback callback,
                    ProgressCallback progress, JsonCallback confirmCallback);
  // Copies |file| to a temporary file, creates an empty video with its stream, attaches the
  // cover when there is one, sends the copy, submits the stream and caches the copy as the
  // video's file. The stream is submitted whatever the attach step answered. The callback gets
  // the submit answer, or what ends the flow early: no copy (a File error) or a create answer
  // without both tokens (with that answer's own error). |file| itself is never touched.
  void createVideoWithData(const Json& data, const std::string& file, StillImagePtr cover,
                           JsonCallback callback, ProgressCallback progress);
  // A new stream for the existing video |token|, with |file| attached and submitted; |file| is
  // then cached and removed, as a finished recording is.
  void rerecordVideoWithToken(const std::string& token, const std::string& file, const Json& data,
                              JsonCallback callback, ProgressCallback progress);
  // Copies the uploaded |path| into the video cache as the file of |token|, removes |path| and
  // trims the video cache.
  void uploadFinished(const std::string& token, const std::string& path);

  void setAppGroup(std::string appGroup) { appGroup_ = std::move(appGroup); }
  const std::string& appGroup() const { return appGroup_; }

  // The screen-recording hand-over: movies the broadcast leaves in the group's shared directory
  // ("com.nembra.screen-recording") are uploaded as videos and deleted once confirmed. Each file
  // is uploaded once however many calls see it, and only once it is a whole movie.
  // setupFileWatcher watches the directory (inotify; from any thread; false, logged, when the
  // group is unset or the directory cannot be watched); presentedItemDidChange is what the
  // watcher calls; processNewScreenRecordings looks now (any thread; uploads start on the main
  // queue). Returns how many uploads it started.
  bool setupFileWatcher();
  void presentedItemDidChange();
  size_t processNewScreenRecordings();
  // Told on the main queue when a screen recording's upload ends: its path and token, or the
  // error.
  std::function<void(const std::string& path, const std::string& token, const OptionalError&)>
      onScreenRecordingUploaded;
  ThumbnailCache& thumbCache() { return thumbCache_; }

 private:
  std::string baseUrl(const std::string& path);
  // Steps 5 and 6 of the create flow, shared with re-recording.
  void attachAndSubmit(const std::string& token, const std::string& streamToken, const Json& data,
                       const std::string& file, JsonCallback callback, ProgressCallback progress);
  void tellDelegate(std::function<void(NembraUploadingDelegate&)> call);

  Nembra& application_;
  ThumbnailCache thumbCache_;
  std::string appGroup_;
  std::mutex screenRecordingsMutex_;
  std::set<std::string> screenRecordingsInFlight_;  // guarded by screenRecordingsMutex_
  // Main-queue tasks hold it weakly and do nothing once it is gone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  // Last: destroyed first, finishing its work while the members above still live.
  std::unique_ptr<SerialQueue> operationQueue_;  // "com.nembra.videos"
  // Its thread calls into this object: stopped before anything else goes.
  std::unique_ptr<DirectoryWatcher> screenRecordingsWatcher_;
};

}  // namespace nembra
