#include "playback/nembra_video_library.h"

#include <ctime>
#include <filesystem>

#include "api/cover_screens.h"
#include "api/utils.h"
#include "nembra/application.h"
#include "nembra/main_queue.h"
#include "nembra/media_type.h"
#include "nembra/nembra_delegates.h"
#include "nembra/nembra_uploading_handler.h"
#include "nembra/nembra_videos.h"
#include "platform/files/file_system.h"

namespace nembra {

namespace fs = std::filesystem;

std::shared_ptr<NembraVideoLibrary> NembraVideoLibrary::initWithNembraApplication(
    Nembra& application) {
  return std::shared_ptr<NembraVideoLibrary>(new NembraVideoLibrary(application, std::nullopt));
}

std::shared_ptr<NembraVideoLibrary> NembraVideoLibrary::initWithNembraApplication(
    Nembra& application, std::string videoToken) {
  return std::shared_ptr<NembraVideoLibrary>(
      new NembraVideoLibrary(application, std::move(videoToken)));
}

NembraVideoLibrary::NembraVideoLibrary(Nembra& application, std::optional<std::string> videoToken)
    : m_nembra(application),
      videoToken_(std::move(videoToken)),
      exportQueue_(std::make_unique<SerialQueue>("com.nembra.videolibrary.export")) {}

NembraVideoLibrary::~NembraVideoLibrary() { exportQueue_.reset(); }

void NembraVideoLibrary::closePicker() {
  if (close_) close_();
}

void NembraVideoLibrary::finish(const std::optional<Json>& json, const OptionalError& error) {
  if (finished_) finished_(json, error);
}

void NembraVideoLibrary::imagePickerControllerDidFinishPickingMediaWithInfo(
    const std::string& mediaPath) {
  auto copy = Utils::copyFileToTemporaryDirectory(mediaPath, "mp4");
  if (!copy) {
    finish(std::nullopt, Error::file("cannot copy " + mediaPath));
    return;
  }
  const fs::path directory = fs::path(FileSystem::shared().temporaryDirectory()) / "MP4";
  std::error_code ec;
  fs::create_directories(directory, ec);
  const std::string target =
      (directory / (std::to_string(static_cast<int>(std::time(nullptr))) + ".mp4")).string();
  if (!converter_) converter_ = makeMediaConverter();
  if (!converter_->canConvert(*copy)) {
    // Not a video the low-quality export takes: nothing is uploaded this way.
    finish(std::nullopt, Error::media(mediaPath + " cannot be exported as a video"));
    return;
  }
  std::weak_ptr<NembraVideoLibrary> weak = weak_from_this();
  MainQueue* main = &m_nembra.mainQueue();
  MediaConverter* converter = converter_.get();
  exportQueue_->async([weak, main, converter, source = *copy, target] {
    OptionalError error = converter->convert(source, target, ConvertOptions{});
    Utils::removeFileWithPath(source);
    main->async([weak, target, error] {
      auto self = weak.lock();
      if (!self) return;
      // A failed export still goes on with the target, as the export session's status says.
      if (error) self->m_nembra.log("Export failed: " + error->message);
      self->videoExportFinished(target);
    });
  });
}

void NembraVideoLibrary::imagePickerControllerDidCancel() {
  closePicker();
  if (auto delegate = m_nembra.getUploadingDelegate()) {
    if (delegate->uploadCancelledByUser) delegate->uploadCancelledByUser();
  }
  if (auto delegate = m_nembra.getFileSelectorDelegate()) {
    if (delegate->uploadCancelledByUser) delegate->uploadCancelledByUser();
  }
}

void NembraVideoLibrary::videoExportFinished(const std::string& path) {
  m_nembra.log("file " + path + " captured");
  if (videoToken_) {
    m_nembra.log("going to rerecord video2 " + *videoToken_);
    std::weak_ptr<NembraVideoLibrary> weak = weak_from_this();
    m_nembra.videos().rerecordVideoWithToken(
        *videoToken_, path, m_nembra.recorderConfig().extraArgs(),
        [weak, main = &m_nembra.mainQueue()](const std::optional<Json>& json, const HttpResponse&,
                                             const OptionalError& error) {
          main->async([weak, json, error] {
            if (auto self = weak.lock()) self->finish(json, error);
          });
        },
        nullptr);
    closePicker();
    return;
  }
  if (m_nembra.recorderConfig().shouldEnableCoverShot()) {
    auto covers = CoverScreens::installed();
    auto presenter = m_nembra.screenPresenter();
    if (covers && presenter) {
      std::weak_ptr<NembraVideoLibrary> weak = weak_from_this();
      covers->presentCoverSelector(m_nembra, *presenter, path,
                                   [weak](const std::string& chosenPath, StillImagePtr image) {
                                     if (auto self = weak.lock()) {
                                       self->coverSelectedWithPath(chosenPath, image);
                                     }
                                   });
      return;
    }
    // No screen to choose on: the default cover, as if the user had asked for it.
    m_nembra.logError(std::string("cannot offer covers: ") +
                      (!covers ? "no cover selector is installed" : "no UI adapter is set"));
  }
  coverSelectedWithPath(path, nullptr);
}

void NembraVideoLibrary::coverSelectedWithPath(const std::string& path, StillImagePtr image) {
  m_nembra.log("cover selected for video " + path);
  std::weak_ptr<NembraVideoLibrary> weak = weak_from_this();
  MainQueue* main = &m_nembra.mainQueue();
  auto create = [weak, main, path](StillImagePtr cover) {
    auto self = weak.lock();
    if (!self) return;
    self->m_nembra.videos().createVideoWithData(
        self->m_nembra.recorderConfig().extraArgs(), path, cover,
        [weak, main](const std::optional<Json>& json, const HttpResponse&,
                     const OptionalError& error) {
          main->async([weak, json, error] {
            if (auto self = weak.lock()) self->finish(json, error);
          });
        },
        nullptr);
  };
  if (image) {
    create(image);
  } else {
    // The default cover: the file's first picture.
    m_nembra.uploadingHandler().getImageForVideoByPath(
        path, [create, main](StillImagePtr cover, const OptionalError&) {
          main->async([create, cover] { create(cover); });
        });
  }
  closePicker();
}

void NembraVideoLibrary::uploadVideo(const std::string& path) {
  m_nembra.uploadingHandler().uploadWithType(VIDEO, path, m_nembra.uploadingConfig().extraArgs());
  closePicker();
}

}  // namespace nembra
