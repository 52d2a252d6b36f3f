// The application's delegates. Each callback is optional: an empty std::function means "not
// implemented", which is what the SDK asks before every call. The application owns its
// delegates; the SDK keeps only weak references, so a delegate that is gone is simply not told.
// Unless a callback says otherwise it runs on the main queue.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "nembra/error.h"
#include "nembra/http_message.h"
#include "nembra/http_task.h"
#include "nembra/json.h"

namespace nembra {

struct NembraHardwarePermissionDelegate {
  std::function<void(bool hasCamera)> checkHasCamera;
  std::function<void(bool hasMicrophone)> checkHasMicrophone;
  std::function<void(bool granted)> checkCameraPermission;
  std::function<void(bool granted)> checkMicrophonePermission;
  std::function<void(bool granted)> checkPhotoLibraryPermission;
};

// The delegates below gain their callbacks with the components that raise them (recorder,
// players, capture aids, pickers, screen recorder, QR scanner).
// The camera and audio recorders' events, each on the main queue.
struct NembraRecorderDelegate {
  virtual ~NembraRecorderDelegate() = default;

  // The capture session is configured.
  std::function<void()> recorderReady;
  // A countdown tick, with the seconds still to go (3, 2, 1).
  std::function<void(int seconds)> recorderCountdown;
  // Only for a platform movie-file output; the asset-writer path never sends it.
  std::function<void()> recorderStarted;
  // The recorded duration reached a new whole second.
  std::function<void(int64_t seconds)> recorderCurrentRecordedDurationSeconds;
  // The audio recorder's take or playback paused.
  std::function<void()> recorderPaused;
  // The file is finished: the camera recorder gives its URL as an absolute string
  // ("file:///..."), the audio recorder its path.
  std::function<void(const std::string& url)> recorderStopped;
  // The audio recorder started playing its take.
  std::function<void()> recorderPlaying;
  std::function<void()> recorderRerecord;
  std::function<void()> recorderManuallySubmitted;
  std::function<void()> recorderCancelledByUser;
  std::function<void()> streamingStarted;
  std::function<void()> streamingStopped;
};
// Told of every upload's progress (the upload handler's flow and the videos endpoint's
// create and re-record flows), each on the main queue.
struct NembraUploadingDelegate {
  virtual ~NembraUploadingDelegate() = default;

  // A file is about to be uploaded.
  std::function<void(const std::string& path)> preparingToUploadWithPath;
  // The upload-URL request failed, or its answer was unusable: nothing was uploaded.
  std::function<void(const Error& error)> errorWithError;
  std::function<void(const std::string& path, const std::string& token,
                     const std::string& streamToken, std::shared_ptr<HttpTask> backgroundTask)>
      uploadStartedWithPath;
  std::function<void(const std::string& path, const std::string& token,
                     const std::string& streamToken, int64_t totalBytesSent,
                     int64_t totalBytesExpectedToSend)>
      uploadProgressWithPath;
  // The file reached storage (or, for the videos flows, the attach request ended).
  std::function<void(const std::string& path, const std::string& token,
                     const std::string& streamToken)>
      uploadFinishedWithPath;
  // The confirm request answered; |error| when it failed.
  std::function<void(const std::string& path, const std::string& token,
                     const std::string& streamToken, const HttpResponse& response,
                     const OptionalError& error, const std::optional<Json>& json)>
      uploadVerifiedWithPath;
  // The file's transfer failed; |info| is always absent, |lostConnectionAction| the configured
  // action (already carried out).
  std::function<void(const std::optional<Json>& info, const Error& error,
                     int32_t lostConnectionAction)>
      errorWithInfo;
  std::function<void(const std::string& token, const std::string& streamToken,
                     const HttpResponse& response, const OptionalError& error,
                     const std::optional<Json>& json)>
      deleteWithToken;
  // The user left a picker (the video library) without choosing anything to upload.
  std::function<void()> uploadCancelledByUser;
};
// Told of playback by the video and audio players, each on the main queue. A video player
// reports an event only when it differs from the one it reported last.
struct NembraPlayerDelegate {
  virtual ~NembraPlayerDelegate() = default;

  std::function<void()> playerReadyToPlay;
  std::function<void()> playerPlaying;
  std::function<void()> playerPaused;
  // A seek or a stall at |seconds| (video), or the position as it moves (audio).
  std::function<void(double seconds)> playerSeek;
  std::function<void()> playerEnded;
  // The audio player was closed by the user.
  std::function<void()> playerCancelledByUser;
};
// A rectangle in a preview's coordinates (the pixels of the picture it shows).
struct NembraRect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
};
// What the camera's aids measure, on the main queue: each picture's brightness (an APEX
// brightness value), each sound buffer's level (0..1) and each face found (its identifier stays
// while the face is followed).
struct NembraSensorDelegate {
  virtual ~NembraSensorDelegate() = default;

  std::function<void(double brightness)> luxMeter;
  std::function<void(double level)> audioMeter;
  std::function<void(int64_t faceId, const NembraRect& rect)> faceDetected;
};
struct NembraFileSelectorDelegate {
  virtual ~NembraFileSelectorDelegate() = default;

  // The user left the video library without picking.
  std::function<void()> uploadCancelledByUser;
};
struct NembraScreenRecorderDelegate {
  virtual ~NembraScreenRecorderDelegate() = default;
};
// The QR scanner's results, on the main queue.
struct NembraQRScannerDelegate {
  virtual ~NembraQRScannerDelegate() = default;

  // The text of a code read from the camera; a code held in view is told once, not per picture.
  std::function<void(const std::string& text)> qrCodeScanned;
};

}  // namespace nembra
