// The application's delegates. Each callback is optional: an empty std::function means "not
// implemented", which is what the SDK asks before every call. The application owns its
// delegates; the SDK keeps only weak references, so a delegate that is gone is simply not told.
// Unless a callback says otherwise it runs on the main queue.
#pragma once

#include <functional>
#include <string>

namespace nembra {

struct NembraHardwarePermissionDelegate {
  std::function<void(bool hasCamera)> checkHasCamera;
  std::function<void(bool hasMicrophone)> checkHasMicrophone;
  std::function<void(bool granted)> checkCameraPermission;
  std::function<void(bool granted)> checkMicrophonePermission;
  std::function<void(bool granted)> checkPhotoLibraryPermission;
};

// The delegates below gain their callbacks with the components that raise them (recorder,
// uploads, players, capture aids, pickers, screen recorder, QR scanner).
struct NembraRecorderDelegate {
  virtual ~NembraRecorderDelegate() = default;
};
struct NembraUploadingDelegate {
  virtual ~NembraUploadingDelegate() = default;
};
struct NembraPlayerDelegate {
  virtual ~NembraPlayerDelegate() = default;
};
struct NembraSensorDelegate {
  virtual ~NembraSensorDelegate() = default;
};
struct NembraFileSelectorDelegate {
  virtual ~NembraFileSelectorDelegate() = default;
};
struct NembraScreenRecorderDelegate {
  virtual ~NembraScreenRecorderDelegate() = default;
};
struct NembraQRScannerDelegate {
  virtual ~NembraQRScannerDelegate() = default;
};

}  // namespace nembra
