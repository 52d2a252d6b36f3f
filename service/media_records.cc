#include "service/media_records.h"

namespace nembra {

const char* mediaKindName(MediaKind kind) {
  switch (kind) {
    case MediaKind::Video:
      return "video";
    case MediaKind::Audio:
      return "audio";
    case MediaKind::Image:
      return "image";
  }
  return "";
}

const char* mediaKindCollection(MediaKind kind) {
  switch (kind) {
    case MediaKind::Video:
      return "videos";
    case MediaKind::Audio:
      return "audios";
    case MediaKind::Image:
      return "images";
  }
  return "";
}

const char* mediaFileName(MediaKind kind) {
  switch (kind) {
    case MediaKind::Video:
      return "video.mp4";
    case MediaKind::Audio:
      return "audio.aac";
    case MediaKind::Image:
      return "image.jpg";
  }
  return "";
}

const char* mediaContentType(MediaKind kind) {
  switch (kind) {
    case MediaKind::Video:
      return "video/mp4";
    case MediaKind::Audio:
      return "audio/aac";
    case MediaKind::Image:
      return "image/jpeg";
  }
  return "application/octet-stream";
}

const char* streamStateName(StreamState state) {
  switch (state) {
    case StreamState::Created:
      return "created";
    case StreamState::Live:
      return "live";
    case StreamState::Uploaded:
      return "uploaded";
    case StreamState::Ready:
      return "ready";
  }
  return "";
}

const char* streamOriginName(StreamOrigin origin) {
  switch (origin) {
    case StreamOrigin::Upload:
      return "upload";
    case StreamOrigin::Recorder:
      return "recorder";
    case StreamOrigin::Live:
      return "live";
  }
  return "";
}

}  // namespace nembra
