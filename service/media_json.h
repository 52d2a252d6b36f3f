// Renders media and streams as the SDK's models read them: each is filled into the api model of
// its kind (Video, Audio, Image, StreamModel) and written through that model's field list, so
// the keys, their types and their order are the model's.
//
// Booleans go out as the texts "true" and "false": the SDK reads a boolean as true only when its
// text is exactly "true", and a JSON true prints as "1" on its side.
//
// Threading: immutable after construction; any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "nembra/stream_model.h"
#include "service/media_view.h"

namespace nembra {

// Where clients reach the service, as they configure it from one --server base.
struct PublicUrls {
  std::string base;     // the API ("--server")
  std::string devApi;   // base + "/embed"
  std::string cdn;      // base + "/cdn"
  std::string files;    // base + "/files"
  std::string storage;  // signed uploads: the storage endpoint's URL, on a port of its own
  std::string rtmp;     // the ingest, "rtmp://host:port/record/_definst_"; empty without one

  static PublicUrls fromBase(const std::string& base, const std::string& storage,
                             const std::string& rtmp);
};

class MediaJson {
 public:
  explicit MediaJson(PublicUrls urls);

  nlohmann::ordered_json media(const MediaView& view) const;  // by the media's kind
  nlohmann::ordered_json video(const MediaView& view) const;
  nlohmann::ordered_json audio(const MediaView& view) const;
  nlohmann::ordered_json image(const MediaView& view) const;
  nlohmann::ordered_json stream(const MediaView& view, const StreamRecord& stream) const;

  // The media file's and cover's public URLs.
  std::string mediaUrl(const MediaRecord& media) const;
  std::string coverUrl(const MediaRecord& media) const;

  const PublicUrls& urls() const { return urls_; }

 private:
  StreamModel streamModel(const MediaView& view, const StreamRecord& stream) const;

  const PublicUrls urls_;
};

}  // namespace nembra
