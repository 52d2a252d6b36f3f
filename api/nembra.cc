#include <cctype>
#include <chrono>
#include <cstdio>

#include "api/aspect_ratio_defaults.h"
#include "api/percent_encoding.h"
#include "api/reachability_manager.h"
#include "nembra/application.h"
#include "nembra/file_info_data.h"
#include "nembra/media_type.h"
#include "nembra/nembra_audios.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/nembra_connect.h"
#include "nembra/nembra_images.h"
#include "nembra/nembra_uploading_handler.h"
#include "nembra/nembra_videos.h"
#include "platform/files/file_system.h"
#include "platform/system/capture_hardware.h"
#include "platform/system/local_notifications.h"
#include "platform/system/mail_composer.h"
#include "platform/system/user_defaults.h"

namespace nembra {

namespace {

constexpr const char* kAppGroupKey = "AppGroup";
constexpr const char* kSupportAddress = "support@nembra.example";
constexpr const char* kErrorSource = "nembra.ios.sdk";

}  // namespace

Nembra::Nembra(MainQueue& mainQueue)
    : mainQueue_(mainQueue),
      logSink_([](const std::string& message) { std::fprintf(stderr, "%s\n", message.c_str()); }) {
  AspectRatioDefaults::setUp();
}

Nembra::Nembra(std::string token, MainQueue& mainQueue) : Nembra(mainQueue) {
  token_ = std::move(token);
  configObj_.reset();
  connectObj_.reset();
  cacheManager_.reset();
  uploadingHandler_.reset();
  if (auto group = UserDefaults::standard().stringForKey(kAppGroupKey)) appGroup_ = *group;
  enableDebugLogs = false;
}

Nembra::~Nembra() = default;

NembraConfig& Nembra::config() {
  if (!configObj_) configObj_ = std::make_unique<NembraConfig>(token_);
  return *configObj_;
}

NembraConnect& Nembra::connect() {
  if (!connectObj_) connectObj_ = std::make_unique<NembraConnect>(*this);
  return *connectObj_;
}

NembraCacheManager& Nembra::cacheManager() {
  std::lock_guard lock(lazyMutex_);
  if (!cacheManager_) cacheManager_ = std::make_unique<NembraCacheManager>(*this, false);
  return *cacheManager_;
}

NembraCacheManager& Nembra::playerCacheManager() {
  std::lock_guard lock(lazyMutex_);
  if (!playerCacheManager_) {
    playerCacheManager_ = std::make_unique<NembraCacheManager>(*this, true);
  }
  return *playerCacheManager_;
}

NembraUploadingHandler& Nembra::uploadingHandler() {
  std::lock_guard lock(lazyMutex_);
  if (!uploadingHandler_) uploadingHandler_ = std::make_unique<NembraUploadingHandler>(*this);
  return *uploadingHandler_;
}

NembraVideos& Nembra::videos() {
  std::lock_guard lock(lazyMutex_);
  if (!videos_) {
    videos_ = std::make_unique<NembraVideos>(*this);
    if (!appGroup_.empty()) videos_->setAppGroup(appGroup_);
  }
  return *videos_;
}

NembraAudios& Nembra::audios() {
  std::lock_guard lock(lazyMutex_);
  if (!audios_) audios_ = std::make_unique<NembraAudios>(*this);
  return *audios_;
}

NembraImages& Nembra::images() {
  std::lock_guard lock(lazyMutex_);
  if (!images_) images_ = std::make_unique<NembraImages>(*this);
  return *images_;
}

int Nembra::mediaTypeForPath(const std::string& path) {
  std::string name =
      path.substr(path.find_last_of('/') == std::string::npos ? 0 : path.find_last_of('/') + 1);
  size_t dot = name.find_last_of('.');
  if (dot == std::string::npos) return 0;
  std::string extension = name.substr(dot + 1);
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const char* video : {"mp4", "mov", "avi"}) {
    if (extension == video) return VIDEO;
  }
  for (const char* audio : {"mp3", "wav", "aac"}) {
    if (extension == audio) return AUDIO;
  }
  for (const char* image : {"png", "jpg", "bmp", "jpeg"}) {
    if (extension == image) return IMAGE;
  }
  return 0;
}

void Nembra::uploadFromPath(const std::string& path, const Json& data) {
  uploadFromPath(path, data, nullptr, nullptr, nullptr);
}

void Nembra::uploadFromPath(
    const std::string& path, const Json& data,
    std::function<void(const std::optional<Json>&, const HttpResponse&, const OptionalError&)>
        callback,
    std::function<void(int64_t, int64_t)> progress,
    std::function<void(const std::optional<Json>&, const HttpResponse&, const OptionalError&)>
        confirmCallback) {
  uploadingHandler().uploadWithType(mediaTypeForPath(path), path, data, std::move(callback),
                                    std::move(progress), std::move(confirmCallback));
}

void Nembra::cancelUpload(const std::string& path, bool deleteFile) {
  uploadingHandler().cancelUpload(path, deleteFile);
}

size_t Nembra::resumeUnfinishedUploads() { return uploadingHandler().resumeUnfinishedUploads(); }

std::string Nembra::getServerAuthToken() { return connect().getServerAuthToken().value_or(""); }

std::string Nembra::getClientAuthToken() { return connect().getClientAuthToken().value_or(""); }

void Nembra::setHardwarePermissionDelegate(std::weak_ptr<NembraHardwarePermissionDelegate> d) {
  hardwarePermissionDelegate_ = std::move(d);
  checkCameraHardware();
  checkMicrophoneHardware();
  checkCameraPermission();
  checkMicrophonePermission();
  checkPhotoLibraryPermission();
}

void Nembra::checkCameraHardware() {
  auto delegate = getHardwarePermissionDelegate();
  if (delegate && delegate->checkHasCamera) delegate->checkHasCamera(CaptureHardware().hasCamera());
}

void Nembra::checkMicrophoneHardware() {
  auto delegate = getHardwarePermissionDelegate();
  if (delegate && delegate->checkHasMicrophone) {
    delegate->checkHasMicrophone(CaptureHardware().hasMicrophone());
  }
}

void Nembra::checkCameraPermission() {
  auto delegate = getHardwarePermissionDelegate();
  if (delegate && delegate->checkCameraPermission) {
    delegate->checkCameraPermission(CaptureHardware().cameraPermission());
  }
}

void Nembra::checkMicrophonePermission() {
  auto delegate = getHardwarePermissionDelegate();
  if (delegate && delegate->checkMicrophonePermission) {
    delegate->checkMicrophonePermission(CaptureHardware().microphonePermission());
  }
}

void Nembra::checkPhotoLibraryPermission() {
  auto delegate = getHardwarePermissionDelegate();
  // Asks whether the delegate answers the microphone check, not the picture-library one: kept
  // as is, hosts rely on receiving this callback only together with that one.
  if (delegate && delegate->checkHasMicrophone && delegate->checkPhotoLibraryPermission) {
    delegate->checkPhotoLibraryPermission(CaptureHardware().pictureLibraryPermission());
  }
}

bool Nembra::isNetworkConnected() { return ReachabilityManager::shared().isNetworkConnected(); }

bool Nembra::isWifiConnected() { return ReachabilityManager::shared().isWifiConnected(); }

void Nembra::sendLocalNotification(const std::string& body) {
  LocalNotifications::shared().schedule({"Nembra", body}, std::chrono::milliseconds(1000), false);
}

void Nembra::setLogSink(LogSink sink) {
  std::lock_guard lock(logMutex_);
  logSink_ = std::move(sink);
}

void Nembra::log(const std::string& message) {
  if (!enableDebugLogs) return;
  LogSink sink;
  {
    std::lock_guard lock(logMutex_);
    sink = logSink_;
  }
  if (sink) sink(message);
}

std::string Nembra::errorEventBody(const std::string& message, long long unixSeconds) {
  // The message goes in as it stands, unescaped: kept, the service's event parser expects the
  // text exactly as clients have always sent it.
  std::string events = "[{\"message\":\"" + message + "\",\"source\":\"" + kErrorSource +
                       "\",\"lineno\":0,\"colno\":0,\"time\":" + std::to_string(unixSeconds) + "}]";
  return "events=" + percentEncode(events, PercentEncodingSet::UrlHostAllowed);
}

void Nembra::logError(const std::string& message) {
  log(message);
  auto now = std::chrono::duration_cast<std::chrono::seconds>(
                 std::chrono::system_clock::now().time_since_epoch())
                 .count();
  std::string body = errorEventBody(message, now);
  connect().postRawDataWithPath("/debugger", std::vector<uint8_t>(body.begin(), body.end()), {},
                                nullptr);
}

void Nembra::sendReport(const std::vector<std::string>& lines) {
  std::string text;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (i) text += "\n";
    text += lines[i];
  }
  FileSystem& fs = FileSystem::shared();
  const std::string path = fs.documentsDirectory() + "/NembraLog.log";
  fs.removeItem(path);
  if (auto error = fs.writeFileAtomically(path, text)) {
    log("sendReport: " + error->message);
    return;
  }
  auto now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch());
  char name[64];
  std::snprintf(name, sizeof(name), "NembraLogs_%f.log", now.count());
  FileInfoData attachment(path, "text/plain", name);
  sendEmailToSupport("Nembra Demo", "", &attachment);
}

void Nembra::sendEmailToSupport() { sendEmailToSupport("", "", nullptr); }

void Nembra::sendEmailToSupport(const std::string& subject, const std::string& messageBody,
                                const FileInfoData* file) {
  MailMessage message{kSupportAddress, subject, messageBody, {}};
  if (file) message.attachments.push_back({file->path, file->mimeType, file->name});
  MailComposer composer(FileSystem::shared().root() + "/Outbox");
  OptionalError error;
  composer.compose(message, error);
  if (error) log("sendEmailToSupport: " + error->message);
}

}  // namespace nembra
