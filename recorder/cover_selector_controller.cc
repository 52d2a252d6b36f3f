#include "recorder/cover_selector_controller.h"

#include <cmath>
#include <thread>

#include "nembra/main_queue.h"
#include "platform/dispatch/serial_queue.h"
#include "platform/dispatch/thread_name.h"
#include "platform/media/media_backend.h"
#include "recorder/nembra_recorder.h"

namespace nembra {

namespace {

constexpr int kRowHeight = 200;
constexpr int64_t kCoverStepSeconds = 4;

// The file's duration as a value in |timescale|; 0 when it cannot be read.
int64_t durationValue(const std::string& path, int32_t timescale) {
  MediaProbeResult result;
  if (MediaBackend::shared().makeMediaProbe()->probe(path, result)) return 0;
  return std::llround(result.duration * timescale);
}

StillImagePtr grab(const std::string& path, int64_t value, int maxWidth, int maxHeight) {
  FrameGrabOptions options;
  options.atSeconds = static_cast<double>(value) / CoverSelectorController::kTimescale;
  options.maxWidth = maxWidth;
  options.maxHeight = maxHeight;
  options.applyRotation = true;
  GrabbedFrame frame;
  if (MediaBackend::shared().makeFrameGrabber()->grab(path, options, frame)) return nullptr;
  auto image = std::make_shared<StillImage>();
  image->data = std::move(frame.jpeg);
  image->format = "jpeg";
  image->width = frame.width;
  image->height = frame.height;
  return image;
}

}  // namespace

CoverSelectorController::CoverSelectorController(std::string videoPath, MainQueue& mainQueue)
    : videoPath_(std::move(videoPath)), mainQueue_(mainQueue) {}

CoverSelectorController::~CoverSelectorController() = default;

std::vector<int64_t> CoverSelectorController::coverTimes(int64_t durationValue, int32_t timescale) {
  std::vector<int64_t> times;
  const int64_t step = kCoverStepSeconds * timescale;
  for (int64_t value = 0; value < durationValue && step > 0; value += step) times.push_back(value);
  return times;
}

int64_t CoverSelectorController::defaultCoverTime(int64_t durationValue) {
  return static_cast<int64_t>(static_cast<double>(durationValue) * 0.5);
}

void CoverSelectorController::getDefaultCoverWithPath(const std::string& path, MainQueue& mainQueue,
                                                      std::function<void(StillImagePtr)> handler) {
  std::thread([path, &mainQueue, handler = std::move(handler)] {
    setCurrentThreadName("com.nembra.recorder.cover");
    const int64_t time = defaultCoverTime(durationValue(path, kTimescale));
    StillImagePtr image = grab(path, time, 640, 480);
    if (image) mainQueue.async([handler, image] { handler(image); });
  }).detach();
}

void CoverSelectorController::viewDidLoad() {
  view().setTitle("Choose a cover");
  view().setButton("default", {"", "Use default cover", true, false});
  view().bindKey("d", "default");
  reload();
  generateCoversFromPath();
}

void CoverSelectorController::generateCoversFromPath() {
  grabQueue_ = std::make_unique<SerialQueue>("com.nembra.recorder.covers");
  grabQueue_->async([weak = weak_from_this(), path = videoPath_, &mainQueue = mainQueue_] {
    for (int64_t time : coverTimes(durationValue(path, kTimescale), kTimescale)) {
      if (weak.expired()) return;
      // A frame that cannot be taken is skipped.
      StillImagePtr image = grab(path, time, 1920, 1080);
      if (!image) continue;
      mainQueue.async([weak, image] {
        if (auto self = weak.lock()) {
          self->covers_.push_back(image);
          self->reload();
        }
      });
    }
  });
}

void CoverSelectorController::reload() {
  if (!presented()) return;
  ListState list;
  list.rowHeight = kRowHeight;
  for (size_t i = 0; i < covers_.size(); ++i) {
    list.rows.push_back("cover " + std::to_string(i + 1) + " (" +
                        std::to_string(covers_[i]->width) + " x " +
                        std::to_string(covers_[i]->height) + ")");
  }
  view().setList("covers", list);
}

void CoverSelectorController::selectRow(int row) {
  if (row < 0 || static_cast<size_t>(row) >= covers_.size()) return;
  StillImagePtr image = covers_[static_cast<size_t>(row)];
  dismiss([delegate = delegate_, chosen = chosen_, path = videoPath_, image] {
    if (chosen) chosen(path, image);
    if (auto recorder = delegate.lock()) recorder->coverSelectedWithPath(path, image);
  });
}

void CoverSelectorController::useDefaultCover() {
  dismiss([delegate = delegate_, chosen = chosen_, path = videoPath_] {
    if (chosen) chosen(path, nullptr);
    if (auto recorder = delegate.lock()) recorder->coverSelectedWithPath(path, nullptr);
  });
}

void CoverSelectorController::buttonPressed(const std::string& name) {
  if (name == "default") useDefaultCover();
}

void CoverSelectorController::rowPicked(const std::string& list, int row) {
  if (list == "covers") selectRow(row);
}

}  // namespace nembra
