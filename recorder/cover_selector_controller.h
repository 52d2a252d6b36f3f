// Lets the user pick the cover uploaded with a recording: frames of the video every 4 seconds
// (in the asset's own timescale), listed as they are grabbed; "default" leaves the choice to the
// recorder (the middle frame, getDefaultCoverWithPath).
//
// View: list "covers" (rows 200 pixels high), the picked row's picture, button "default".
//
// Threading: main queue only; frames are grabbed on "com.nembra.recorder.covers" and listed on
// the main queue.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "nembra/still_image.h"
#include "platform/ui/screen.h"

namespace nembra {

class MainQueue;
class NembraRecorder;
class SerialQueue;

class CoverSelectorController final : public Screen,
                                      public std::enable_shared_from_this<CoverSelectorController> {
 public:
  // The timescale durations are counted in (that of the MP4 files the recorder writes).
  static constexpr int32_t kTimescale = 1000;

  // initWithSourceVideoPath: stores the path; the covers are grabbed once the view exists.
  CoverSelectorController(std::string videoPath, MainQueue& mainQueue);
  ~CoverSelectorController() override;

  std::string name() const override { return "cover-selector"; }
  void setDelegate(std::weak_ptr<NembraRecorder> delegate) { delegate_ = std::move(delegate); }
  // In place of a recorder: gets the path and the picked picture (null for the default cover).
  void setChosen(std::function<void(const std::string&, StillImagePtr)> chosen) {
    chosen_ = std::move(chosen);
  }

  const std::vector<StillImagePtr>& covers() const { return covers_; }
  // The row picked: dismisses and hands the path and the row's picture to the recorder.
  void selectRow(int row);
  void useDefaultCover();

  // Candidate times, as values in |timescale|: 0, 4, 8, ... seconds while below the duration.
  static std::vector<int64_t> coverTimes(int64_t durationValue, int32_t timescale);
  // The default cover's time: the duration's value halved, truncated toward zero.
  static int64_t defaultCoverTime(int64_t durationValue);
  // Grabs the middle frame at most 640 x 480 and calls |handler| on |mainQueue| with it, at most
  // once and only when the frame could be taken.
  static void getDefaultCoverWithPath(const std::string& path, MainQueue& mainQueue,
                                      std::function<void(StillImagePtr)> handler);

  void buttonPressed(const std::string& name) override;
  void rowPicked(const std::string& list, int row) override;

 protected:
  void viewDidLoad() override;

 private:
  void generateCoversFromPath();
  void reload();

  const std::string videoPath_;
  MainQueue& mainQueue_;
  std::weak_ptr<NembraRecorder> delegate_;
  std::function<void(const std::string&, StillImagePtr)> chosen_;
  std::vector<StillImagePtr> covers_;
  std::unique_ptr<SerialQueue> grabQueue_;
};

}  // namespace nembra
