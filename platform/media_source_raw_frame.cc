#include "platform/media_source_raw_frame.h"

#include <utility>

extern "C" {
#include <libavutil/frame.h>
}

namespace nembra {

RawMediaFrame::RawMediaFrame(Kind kind, AVFrame* frame, double pts)
    : kind_(kind), frame_(frame), pts_(pts) {}

RawMediaFrame::~RawMediaFrame() { av_frame_free(&frame_); }

RawMediaFrame::RawMediaFrame(RawMediaFrame&& other) noexcept
    : kind_(other.kind_), frame_(std::exchange(other.frame_, nullptr)), pts_(other.pts_) {}

RawMediaFrame& RawMediaFrame::operator=(RawMediaFrame&& other) noexcept {
  if (this != &other) {
    av_frame_free(&frame_);
    kind_ = other.kind_;
    frame_ = std::exchange(other.frame_, nullptr);
    pts_ = other.pts_;
  }
  return *this;
}

int RawMediaFrame::width() const { return frame_ ? frame_->width : 0; }
int RawMediaFrame::height() const { return frame_ ? frame_->height : 0; }
int RawMediaFrame::sampleCount() const { return frame_ ? frame_->nb_samples : 0; }
int RawMediaFrame::sampleRate() const { return frame_ ? frame_->sample_rate : 0; }

}  // namespace nembra
