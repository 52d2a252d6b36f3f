// The rows the service keeps: media (videos, audios, images), their streams, signed upload
// tickets, sessions and diagnostic events. Plain values; MediaStore reads and writes them.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace nembra {

// The SDK's media type codes, used on the wire and in the store alike.
enum class MediaKind { Video = 1, Audio = 2, Image = 5 };

// created -> (live, while an RTMP publish runs) -> uploaded (a file is stored) -> ready (the
// client submitted or confirmed it).
enum class StreamState { Created = 0, Live = 1, Uploaded = 2, Ready = 3 };

// How a stream's file arrives: a signed storage upload, the recorder's multipart attach, or an
// RTMP publish recorded by the ingest.
enum class StreamOrigin { Upload = 1, Recorder = 2, Live = 3 };

const char* mediaKindName(MediaKind kind);          // "video", "audio", "image"
const char* mediaKindCollection(MediaKind kind);    // "videos", "audios", "images"
const char* mediaFileName(MediaKind kind);          // "video.mp4", "audio.aac", "image.jpg"
const char* mediaContentType(MediaKind kind);       // "video/mp4", "audio/aac", "image/jpeg"
const char* streamStateName(StreamState state);     // "created", "live", "uploaded", "ready"
const char* streamOriginName(StreamOrigin origin);  // "upload", "recorder", "live"

struct MediaRecord {
  int64_t seq = 0;
  std::string token;
  std::string application;
  MediaKind kind = MediaKind::Video;
  int64_t created = 0;  // Unix seconds
  int64_t updated = 0;
  std::string creationSession;  // a digest of the creating session, never the session itself
  std::string clientAuth;       // "client_auth" and "server_auth" of the creating request
  std::string serverAuth;
  nlohmann::json attributes = nlohmann::json::object();  // what clients may set (title, tags…)
};

struct StreamRecord {
  int64_t seq = 0;
  std::string token;
  std::string media;
  StreamOrigin origin = StreamOrigin::Upload;
  StreamState state = StreamState::Created;
  int64_t created = 0;
  int64_t updated = 0;
  bool submitted = false;
  int64_t submissionDate = 0;
  int64_t fileSize = 0;
  int64_t coverSize = 0;
  bool coverChosen = false;  // attached by the client, not grabbed from the file
  int width = 0;
  int height = 0;
  double duration = 0.0;
  bool hasVideo = false;
  bool hasAudio = false;
  std::string probeError;  // why the stored file is not playable, when it is not
  nlohmann::json attributes = nlohmann::json::object();
};

// A signed storage form handed out with an upload URL: which stream a posted object becomes.
struct UploadTicket {
  std::string objectKey;
  std::string application;
  MediaKind kind = MediaKind::Video;
  std::string media;
  std::string stream;
  std::string contentType;
  int64_t maxBytes = 0;
  int64_t expires = 0;  // Unix seconds
};

struct SessionRecord {
  std::string token;
  std::string application;  // empty until first used
  int64_t created = 0;
  std::string clientAuth;
  std::string serverAuth;
  int64_t lastUsed = 0;  // Unix seconds, recorded at a coarse grain
};

struct DebuggerEvent {
  int64_t id = 0;
  std::string application;
  int64_t received = 0;
  std::string payload;     // the decoded "events" text as it came
  bool validJson = false;  // the SDK does not escape messages, so a quote breaks the JSON
};

}  // namespace nembra
