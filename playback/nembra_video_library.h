// The video library: a movie the user picked (off the phone, a file path) is copied to the
// temporary directory, exported as a low-quality MPEG-4 with the index at the front, and handed
// to the service: re-recording the video the library was opened for, or as a new video with a
// cover: with the recorder configuration's shouldEnableCoverShot the one the user picks in the
// cover selector (api/cover_screens.h, over the application's presenter), else the file's first
// picture.
//
// Threading: main queue only. The export runs on the serial queue
// "com.nembra.videolibrary.export"; every callback runs on the main queue.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "nembra/error.h"
#include "nembra/json.h"
#include "nembra/still_image.h"
#include "platform/dispatch/serial_queue.h"
#include "platform/media/media_converter.h"

namespace nembra {

class Nembra;

class NembraVideoLibrary : public std::enable_shared_from_this<NembraVideoLibrary> {
 public:
  // The service's answer to the upload (the created or re-recorded video), or the reason.
  using Finished = std::function<void(const std::optional<Json>& json, const OptionalError& error)>;

  static std::shared_ptr<NembraVideoLibrary> initWithNembraApplication(Nembra& application);
  static std::shared_ptr<NembraVideoLibrary> initWithNembraApplication(Nembra& application,
                                                                       std::string videoToken);
  ~NembraVideoLibrary();

  // Null: the plug-in's converter.
  void setConverter(std::unique_ptr<MediaConverter> converter) {
    converter_ = std::move(converter);
  }
  void setFinished(Finished finished) { finished_ = std::move(finished); }
  // The host's "close the picker".
  void setClose(std::function<void()> close) { close_ = std::move(close); }

  // The user picked the movie at |mediaPath|.
  void imagePickerControllerDidFinishPickingMediaWithInfo(const std::string& mediaPath);
  // The user left without picking.
  void imagePickerControllerDidCancel();

  void videoExportFinished(const std::string& path);
  void coverSelectedWithPath(const std::string& path, StillImagePtr image);
  // Uploads |path| as a video through the upload handler with the upload configuration's extra
  // arguments.
  void uploadVideo(const std::string& path);

  const std::optional<std::string>& videoToken() const { return videoToken_; }

 private:
  NembraVideoLibrary(Nembra& application, std::optional<std::string> videoToken);
  void closePicker();
  void finish(const std::optional<Json>& json, const OptionalError& error);

  Nembra& m_nembra;
  const std::optional<std::string> videoToken_;
  std::unique_ptr<MediaConverter> converter_;
  Finished finished_;
  std::function<void()> close_;
  std::unique_ptr<SerialQueue> exportQueue_;
};

}  // namespace nembra
