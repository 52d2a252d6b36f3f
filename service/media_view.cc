#include "service/media_view.h"

namespace nembra {

const StreamRecord* MediaView::originalStream() const {
  return streams.empty() ? nullptr : &streams.front();
}

const StreamRecord* MediaView::defaultStream() const {
  for (auto it = streams.rbegin(); it != streams.rend(); ++it) {
    if (it->state == StreamState::Uploaded || it->state == StreamState::Ready) return &*it;
  }
  return streams.empty() ? nullptr : &streams.back();
}

const StreamRecord* MediaView::stream(const std::string& token) const {
  for (const auto& candidate : streams) {
    if (candidate.token == token) return &candidate;
  }
  return nullptr;
}

}  // namespace nembra
