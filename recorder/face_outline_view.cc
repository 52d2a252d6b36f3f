#include "recorder/face_outline_view.h"

#include <algorithm>
#include <cmath>

namespace nembra {
namespace {

// Yellow in full-range BT.601 YUV.
constexpr uint8_t kOutlineY = 210;
constexpr uint8_t kOutlineU = 16;
constexpr uint8_t kOutlineV = 146;

struct PixelBox {
  int left, top, right, bottom;  // right and bottom exclusive
};

PixelBox clip(const FaceRect& rect, int width, int height) {
  auto clamp = [](double value, int limit) {
    return static_cast<int>(std::clamp(std::lround(value), 0L, static_cast<long>(limit)));
  };
  return {clamp(rect.x, width), clamp(rect.y, height), clamp(rect.x + rect.width, width),
          clamp(rect.y + rect.height, height)};
}

void fill(VideoFrame& picture, int left, int top, int right, int bottom) {
  for (int y = top; y < bottom; ++y) {
    uint8_t* row = picture.planes[0].data() + static_cast<size_t>(y) * picture.strides[0];
    std::fill(row + left, row + right, kOutlineY);
  }
  for (int y = top / 2; y < (bottom + 1) / 2; ++y) {
    for (int plane = 1; plane < 3; ++plane) {
      uint8_t* row = picture.planes[plane].data() + static_cast<size_t>(y) * picture.strides[plane];
      std::fill(row + left / 2, row + (right + 1) / 2, plane == 1 ? kOutlineU : kOutlineV);
    }
  }
}

void outline(VideoFrame& picture, const PixelBox& box) {
  if (box.right <= box.left || box.bottom <= box.top) return;
  const int thickness = std::max(2, std::min(box.right - box.left, box.bottom - box.top) / 30);
  fill(picture, box.left, box.top, box.right, std::min(box.bottom, box.top + thickness));
  fill(picture, box.left, std::max(box.top, box.bottom - thickness), box.right, box.bottom);
  fill(picture, box.left, box.top, std::min(box.right, box.left + thickness), box.bottom);
  fill(picture, std::max(box.left, box.right - thickness), box.top, box.right, box.bottom);
}

// The drawable's luma blended over the face by its alpha, stretched to the face's box.
void stamp(VideoFrame& picture, const PixelBox& box, const Picture& drawable) {
  if (drawable.frames.empty() || drawable.width <= 0 || drawable.height <= 0) return;
  const std::vector<uint8_t>& rgba = drawable.frames.front().rgba;
  const int width = box.right - box.left;
  const int height = box.bottom - box.top;
  for (int y = 0; y < height; ++y) {
    const int sy = y * drawable.height / height;
    uint8_t* row = picture.planes[0].data() + static_cast<size_t>(box.top + y) * picture.strides[0];
    for (int x = 0; x < width; ++x) {
      const int sx = x * drawable.width / width;
      const uint8_t* p = &rgba[(static_cast<size_t>(sy) * drawable.width + sx) * 4];
      const int luma = (299 * p[0] + 587 * p[1] + 114 * p[2]) / 1000;
      uint8_t& out = row[box.left + x];
      out = static_cast<uint8_t>((luma * p[3] + out * (255 - p[3])) / 255);
    }
  }
}

}  // namespace

void FaceOutlineView::addFace(int64_t faceId, FaceRect rect) {
  std::lock_guard lock(mutex_);
  if (!faces_) faces_ = std::make_unique<std::map<int64_t, Face>>();
  (*faces_)[faceId].setRect(rect);
}

void FaceOutlineView::retainFaces(const std::vector<int64_t>& faceIds) {
  std::lock_guard lock(mutex_);
  if (!faces_) return;
  std::erase_if(*faces_, [&](const auto& entry) {
    return std::find(faceIds.begin(), faceIds.end(), entry.first) == faceIds.end();
  });
}

std::map<int64_t, FaceRect> FaceOutlineView::faceRects() const {
  std::lock_guard lock(mutex_);
  std::map<int64_t, FaceRect> rects;
  if (faces_) {
    for (const auto& [id, face] : *faces_) rects[id] = face.rect();
  }
  return rects;
}

void FaceOutlineView::setOutlineDrawable(SharedPicture drawable) {
  std::lock_guard lock(mutex_);
  drawable_ = std::move(drawable);
}

void FaceOutlineView::setHidden(bool hidden) {
  std::lock_guard lock(mutex_);
  hidden_ = hidden;
}

bool FaceOutlineView::hidden() const {
  std::lock_guard lock(mutex_);
  return hidden_;
}

void FaceOutlineView::drawRect(VideoFrame& picture) const {
  std::lock_guard lock(mutex_);
  if (hidden_ || !faces_ || picture.width <= 0 || picture.height <= 0 ||
      picture.planes[0].size() < static_cast<size_t>(picture.strides[0]) * picture.height) {
    return;
  }
  for (const auto& [id, face] : *faces_) {
    const PixelBox box = clip(face.rect(), picture.width, picture.height);
    if (drawable_) {
      if (box.right > box.left && box.bottom > box.top) stamp(picture, box, *drawable_);
    } else {
      outline(picture, box);
    }
  }
}

}  // namespace nembra
