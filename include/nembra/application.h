// The application object: the one object a host creates to use the SDK. It holds the token,
// the server configuration, the delegates, and creates the service objects lazily on first use.
//
// Threading: call it from the main queue's thread (the host's). Delegate calls arrive on the
// main queue given at construction. log() may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "nembra/cache_config.h"
#include "nembra/error.h"
#include "nembra/file_selector_config.h"
#include "nembra/http_message.h"
#include "nembra/json.h"
#include "nembra/main_queue.h"
#include "nembra/nembra_config.h"
#include "nembra/nembra_delegates.h"
#include "nembra/player_config.h"
#include "nembra/qr_scanner_config.h"
#include "nembra/recorder_config.h"
#include "nembra/uploading_config.h"

namespace nembra {

class NembraConnect;
class NembraCacheManager;
class NembraUploadingHandler;
class NembraVideos;
class NembraAudios;
class NembraImages;
class FileInfoData;
class RemoteImageLoader;
class ScreenPresenter;
class PlaybackScreens;
class ChildProcess;

class Nembra {
 public:
  // init: empty token, default configuration objects, the process-wide aspect ratios
  // (AspectRatioDefaults), debug logs off.
  explicit Nembra(MainQueue& mainQueue = MainQueue::shared());
  // initWithToken: also reads the "AppGroup" user default.
  explicit Nembra(std::string token, MainQueue& mainQueue = MainQueue::shared());
  ~Nembra();

  Nembra(const Nembra&) = delete;
  Nembra& operator=(const Nembra&) = delete;

  const std::string& token() const { return token_; }
  void setToken(std::string token) { token_ = std::move(token); }
  const std::string& getAppToken() const { return token_; }
  std::string getServerAuthToken();
  std::string getClientAuthToken();

  // Lazy service objects: created on first call, the same object afterwards. config() takes its
  // region from the token current at that first call. The media objects below may be asked for
  // from any thread; their members say where they may be used.
  NembraConfig& config();
  NembraConnect& connect();
  // The recordings' cache (isPlayer false) and the players' cache (isPlayer true).
  NembraCacheManager& cacheManager();
  NembraCacheManager& playerCacheManager();
  NembraUploadingHandler& uploadingHandler();
  // The videos endpoint gets appGroup() when it is made.
  NembraVideos& videos();
  NembraAudios& audios();
  NembraImages& images();

  // Configuration objects, read by the components each time they start work.
  UploadingConfig& uploadingConfig() { return uploadingConfig_; }
  void setUploadingConfig(UploadingConfig config) { uploadingConfig_ = std::move(config); }
  CacheConfig& cacheConfig() { return cacheConfig_; }
  void setCacheConfig(CacheConfig config) { cacheConfig_ = std::move(config); }
  RecorderConfig& recorderConfig() { return recorderConfig_; }
  void setRecorderConfig(RecorderConfig config) { recorderConfig_ = std::move(config); }
  PlayerConfig& playerConfig() { return playerConfig_; }
  void setPlayerConfig(PlayerConfig config) { playerConfig_ = std::move(config); }
  FileSelectorConfig& fileSelectorConfig() { return fileSelectorConfig_; }
  void setFileSelectorConfig(FileSelectorConfig config) { fileSelectorConfig_ = std::move(config); }
  QrScannerConfig& qrScannerConfig() { return qrScannerConfig_; }
  void setQrScannerConfig(QrScannerConfig config) { qrScannerConfig_ = std::move(config); }

  // Uploads the file at |path| with the type its lower-cased extension names: "mp4", "mov",
  // "avi" video; "mp3", "wav", "aac" audio; "png", "jpg", "bmp", "jpeg" image. Any other
  // extension is handed on with no type (0), whose upload URLs are "": the connection's error
  // then ends the upload.
  void uploadFromPath(const std::string& path, const Json& data);
  void uploadFromPath(
      const std::string& path, const Json& data,
      std::function<void(const std::optional<Json>&, const HttpResponse&, const OptionalError&)>
          callback,
      std::function<void(int64_t, int64_t)> progress,
      std::function<void(const std::optional<Json>&, const HttpResponse&, const OptionalError&)>
          confirmCallback);
  // The media type uploadFromPath picks for |path|; 0 when the extension names none.
  static int mediaTypeForPath(const std::string& path);
  // Cancels the upload of |path|, deleting the file when |deleteFile| is set.
  void cancelUpload(const std::string& path, bool deleteFile);
  // Restarts the uploads a previous process with this token left unfinished (the uploading
  // delegate hears of them as of any upload): set the delegate first. Returns how many.
  size_t resumeUnfinishedUploads();

  MainQueue& mainQueue() { return mainQueue_; }

  // Screens (api/nembra_screens.h): the host's presenter, held weakly, over which the viewer
  // and the other screens are presented. Without one, or without an installed screen module,
  // the show operations log an error and do nothing.
  void setScreenPresenter(std::weak_ptr<ScreenPresenter> presenter) {
    screenPresenter_ = std::move(presenter);
  }
  std::shared_ptr<ScreenPresenter> screenPresenter() const { return screenPresenter_.lock(); }
  // Image tokens, turned into URLs with images().getImageUrl, then showImageFromUris.
  void showImage(const std::string& token);
  void showImages(const std::vector<std::string>& tokens);
  // Presents the image viewer over the topmost screen: URLs, file:// URIs or local paths.
  void showImageFromUri(const std::string& uri);
  void showImageFromUris(const std::vector<std::string>& uris);
  // Presents the audio recorder (api/capture_screens.h) over the topmost screen.
  void startAudioRecorder();
  // Stores |appGroup| under the "AppGroup" user default, hands it to videos(), and starts the
  // screen broadcast in place of the platform's picker: the nembra tool's `record-screen
  // --app-group G` (found at $NEMBRA_TOOL, beside this program, else in PATH), or the program
  // |preferredExtension| names, with |broadcastArguments| added; its log goes to
  // "screen-broadcast.log" in the temporary directory. The broadcast leaves its movie in the
  // group's shared directory; videos().setupFileWatcher() picks it up.
  OptionalError startScreenRecorderWithAppGroup(
      const std::string& appGroup, const std::string& preferredExtension,
      const std::vector<std::string>& broadcastArguments = {});
  // Ends that broadcast as the platform's stop button would, and waits for it to have moved
  // its movie (at most |limit|). Its exit code; absent when none ran or it did not end in time.
  std::optional<int> stopScreenRecorder(std::chrono::milliseconds limit = std::chrono::seconds(60));
  // Copies "client_auth" and "server_auth" from recorderConfig's extraArgs into connect(), then
  // presents the camera recorder (its module installs itself: api/recorder_screens.h); with a
  // |videoToken| the recording replaces that video's stream.
  void record();
  void record(const std::string& videoToken);
  // Video players (api/playback_screens.h), presented like the viewer: video tokens, or URLs
  // and local paths.
  void playVideo(const std::string& token);
  void playVideos(const std::vector<std::string>& tokens);
  void playFromUri(const std::string& uri);
  void playFromUris(const std::vector<std::string>& uris);
  // The audio player: tokens (turned into URLs with audios().getAudioUrl), or ready URLs.
  void playAudio(const std::string& token);
  void playAudios(const std::vector<std::string>& tokens);
  void playAudioFromUri(const std::string& uri);
  void playAudioFromUris(const std::vector<std::string>& uris);
  void startAudioPlayer(const std::vector<std::string>& paths);
  // The media picker and the video editor (api/picker_screens.h), presented like the players.
  // trimVideo refuses a path that contains "http://" or "https://" with an alert; otherwise it
  // copies the file to "video.mp4" in the documents directory (replacing an old one) and opens
  // the trimming editor on the copy, whose cut is uploaded as a video.
  void trimVideo(const std::string& path);
  // The media picker offering fileSelectorConfig's media types and limits.
  void startFileSelector();
  // Remote image loading for screens, made on first use; shared with the screens that use it.
  std::shared_ptr<RemoteImageLoader> imageLoader();

  // The camera screens (api/capture_aid_screens.h), presented over the topmost screen: one
  // still picture uploaded as an image, and the QR scanner with qrScannerConfig and the QR
  // delegate. Without a presenter or an installed module they log an error and do nothing.
  void startImageRecorder();
  void startQrScanner();

  // Delegates are held weakly.
  void setRecorderDelegate(std::weak_ptr<NembraRecorderDelegate> d) { recorderDelegate_ = d; }
  std::shared_ptr<NembraRecorderDelegate> getRecorderDelegate() const {
    return recorderDelegate_.lock();
  }
  void setUploadingDelegate(std::weak_ptr<NembraUploadingDelegate> d) { uploadingDelegate_ = d; }
  std::shared_ptr<NembraUploadingDelegate> getUploadingDelegate() const {
    return uploadingDelegate_.lock();
  }
  void setPlayerDelegate(std::weak_ptr<NembraPlayerDelegate> d) { playerDelegate_ = d; }
  std::shared_ptr<NembraPlayerDelegate> getPlayerDelegate() const { return playerDelegate_.lock(); }
  void setSensorDelegate(std::weak_ptr<NembraSensorDelegate> d) { sensorDelegate_ = d; }
  std::shared_ptr<NembraSensorDelegate> getSensorDelegate() const { return sensorDelegate_.lock(); }
  // Stores the delegate and at once runs the five hardware checks, in the order below.
  void setHardwarePermissionDelegate(std::weak_ptr<NembraHardwarePermissionDelegate> d);
  std::shared_ptr<NembraHardwarePermissionDelegate> getHardwarePermissionDelegate() const {
    return hardwarePermissionDelegate_.lock();
  }
  void setFileSelectorDelegate(std::weak_ptr<NembraFileSelectorDelegate> d) {
    fileSelectorDelegate_ = d;
  }
  std::shared_ptr<NembraFileSelectorDelegate> getFileSelectorDelegate() const {
    return fileSelectorDelegate_.lock();
  }
  void setScreenRecorderDelegate(std::weak_ptr<NembraScreenRecorderDelegate> d) {
    screenRecorderDelegate_ = d;
  }
  std::shared_ptr<NembraScreenRecorderDelegate> getScreenRecorderDelegate() const {
    return screenRecorderDelegate_.lock();
  }
  void setQRScannerDelegate(std::weak_ptr<NembraQRScannerDelegate> d) { qrScannerDelegate_ = d; }
  std::shared_ptr<NembraQRScannerDelegate> getQRScannerDelegate() const {
    return qrScannerDelegate_.lock();
  }

  // Hardware checks: each tells the hardware permission delegate, when set and implementing the
  // matching callback.
  void checkCameraHardware();
  void checkMicrophoneHardware();
  void checkCameraPermission();
  void checkMicrophonePermission();
  void checkPhotoLibraryPermission();

  bool isNetworkConnected();
  bool isWifiConnected();

  // Posts a local notification titled "Nembra" with |body|, delivered after one second.
  void sendLocalNotification(const std::string& body);

  bool enableDebugLogs = false;

  // Writes |message| to the log sink (standard error by default) when enableDebugLogs is set.
  void log(const std::string& message);
  // log() and report the message to the service's "/debugger" events.
  void logError(const std::string& message);
  // Writes |lines| to "NembraLog.log" in the documents directory and mails it to support.
  void sendReport(const std::vector<std::string>& lines);
  void sendEmailToSupport();
  void sendEmailToSupport(const std::string& subject, const std::string& messageBody,
                          const FileInfoData* file);

  // Where log() writes; the host may redirect it (the CLI sends it to stderr with --debug).
  using LogSink = std::function<void(const std::string&)>;
  void setLogSink(LogSink sink);

  // The "/debugger" form body for |message| at |unixSeconds|.
  static std::string errorEventBody(const std::string& message, long long unixSeconds);

  // The shared container of screen recordings, from the "AppGroup" user default.
  const std::string& appGroup() const { return appGroup_; }

 private:
  void withPlaybackScreens(const std::string& what,
                           const std::function<void(PlaybackScreens&, ScreenPresenter&)>& run);
  MainQueue& mainQueue_;
  std::string token_;
  std::string appGroup_;
  std::unique_ptr<NembraConfig> configObj_;
  // The six configuration objects, each with its defaults from construction on.
  FileSelectorConfig fileSelectorConfig_;
  UploadingConfig uploadingConfig_;
  PlayerConfig playerConfig_;
  QrScannerConfig qrScannerConfig_;
  CacheConfig cacheConfig_;
  RecorderConfig recorderConfig_;
  std::unique_ptr<NembraCacheManager> cacheManager_;
  std::unique_ptr<NembraCacheManager> playerCacheManager_;
  std::unique_ptr<NembraUploadingHandler> uploadingHandler_;
  std::unique_ptr<NembraVideos> videos_;
  std::unique_ptr<NembraAudios> audios_;
  std::unique_ptr<NembraImages> images_;
  std::shared_ptr<RemoteImageLoader> imageLoader_;
  std::weak_ptr<ScreenPresenter> screenPresenter_;
  // The running screen broadcast (shared: its type stays private to the platform layer).
  std::shared_ptr<ChildProcess> screenBroadcast_;
  // The accessors above may be first called from a request callback's thread.
  std::recursive_mutex lazyMutex_;

  std::weak_ptr<NembraRecorderDelegate> recorderDelegate_;
  std::weak_ptr<NembraUploadingDelegate> uploadingDelegate_;
  std::weak_ptr<NembraPlayerDelegate> playerDelegate_;
  std::weak_ptr<NembraSensorDelegate> sensorDelegate_;
  std::weak_ptr<NembraHardwarePermissionDelegate> hardwarePermissionDelegate_;
  std::weak_ptr<NembraFileSelectorDelegate> fileSelectorDelegate_;
  std::weak_ptr<NembraScreenRecorderDelegate> screenRecorderDelegate_;
  std::weak_ptr<NembraQRScannerDelegate> qrScannerDelegate_;

  std::mutex logMutex_;
  LogSink logSink_;  // guarded by logMutex_

  // Last, so destroyed first: once the connection is gone no request callback can reach any
  // member above (the log sink, the delegates, the lazy objects).
  std::unique_ptr<NembraConnect> connectObj_;
};

}  // namespace nembra
