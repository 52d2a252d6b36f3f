#include "service/media_library.h"

#include <filesystem>
#include <system_error>

#include "platform/http/http_time.h"
#include "service/media_attributes.h"
#include "service/token_rules.h"

namespace nembra {

namespace fs = std::filesystem;

namespace {

void removeQuietly(const std::string& path) {
  if (path.empty()) return;
  std::error_code ignored;
  fs::remove(path, ignored);
}

// Moves |from| to |to| (replacing it), creating |to|'s directory first.
OptionalError moveInto(const std::string& from, const std::string& to) {
  std::error_code ec;
  fs::create_directories(fs::path(to).parent_path(), ec);
  if (ec) return Error::file("cannot create the directory of " + to + ": " + ec.message());
  fs::rename(from, to, ec);
  if (ec) return Error::file("cannot store " + to + ": " + ec.message(), ec.value());
  return std::nullopt;
}

int64_t fileSize(const std::string& path) {
  std::error_code ec;
  auto size = fs::file_size(path, ec);
  return ec ? 0 : static_cast<int64_t>(size);
}

std::string generatedToken(MediaKind kind) {
  switch (kind) {
    case MediaKind::Video:
      return newToken("vi");
    case MediaKind::Audio:
      return newToken("au");
    case MediaKind::Image:
      return newToken("im");
  }
  return newToken("me");
}

// Whether a new file may replace what the stream holds.
OptionalError checkAttachable(const StreamRecord& stream, bool fromIngest) {
  if (stream.state == StreamState::Ready) {
    return Error::http(409, "stream " + stream.token +
                                " is ready and keeps its file; create a new stream for another");
  }
  if (stream.state == StreamState::Live && !fromIngest) {
    return Error::http(409, "stream " + stream.token + " is receiving a live publish");
  }
  return std::nullopt;
}

}  // namespace

MediaLibrary::MediaLibrary(MediaStore& store, const DataDirectory& directory,
                           const MediaAnalyzer& analyzer, const StoragePolicySigner& signer,
                           const ServiceOptions& options)
    : store_(store),
      directory_(directory),
      analyzer_(analyzer),
      signer_(signer),
      options_(options) {}

Error MediaLibrary::notFound(MediaKind kind, const std::string& token) {
  return Error::http(404, std::string(mediaKindName(kind)) + " " + token + " not found");
}

Error MediaLibrary::streamNotFound(const std::string& media, const std::string& stream) {
  return Error::http(404, "stream " + stream + " of " + media + " not found");
}

Result<MediaView> MediaLibrary::load(const std::string& application, std::optional<MediaKind> kind,
                                     const std::string& media) {
  auto found = store_.findMedia(media);
  if (!found) return found.error();
  // Another application's media, or another kind, is as absent as a missing one.
  if (!*found || (*found)->application != application || (kind && (*found)->kind != *kind)) {
    return notFound(kind.value_or(MediaKind::Video), media);
  }
  MediaView view;
  view.media = std::move(**found);
  auto streams = store_.listStreams(media);
  if (!streams) return streams.error();
  view.streams = std::move(*streams);
  return view;
}

Result<std::vector<MediaView>> MediaLibrary::list(const std::string& application, MediaKind kind,
                                                  int64_t limit, int64_t offset) {
  auto media = store_.listMedia(application, kind, limit, offset);
  if (!media) return media.error();
  std::vector<MediaView> views;
  views.reserve(media->size());
  for (auto& record : *media) {
    auto streams = store_.listStreams(record.token);
    if (!streams) return streams.error();
    views.push_back(MediaView{std::move(record), std::move(*streams)});
  }
  return views;
}

Result<MediaView> MediaLibrary::get(const std::string& application, MediaKind kind,
                                    const std::string& media) {
  return load(application, kind, media);
}

Result<MediaView> MediaLibrary::find(const std::string& application, const std::string& media) {
  return load(application, std::nullopt, media);
}

Result<MediaView> MediaLibrary::create(const RequestAuth& auth, MediaKind kind,
                                       const FormParams& params,
                                       std::optional<StreamOrigin> firstStream) {
  auto attributes = MediaAttributes::applyToMedia(kind, nlohmann::json::object(), params);
  if (!attributes) return attributes.error();
  int64_t now = unixNow();
  // Every new upload may leave one more abandoned: they are swept as they come, at most once a
  // minute (or once a lifetime, when that is shorter).
  int64_t last = lastAbandonedSweep_.load();
  int64_t interval = std::min<int64_t>(60, options_.unconfirmedVideoLifetimeSeconds);
  if (firstStream == StreamOrigin::Upload && now - last >= interval &&
      lastAbandonedSweep_.compare_exchange_strong(last, now)) {
    if (auto swept = removeAbandonedUploads(now); !swept) return swept.error();
  }
  MediaView view;
  view.media.token = generatedToken(kind);
  view.media.application = auth.application;
  view.media.kind = kind;
  view.media.created = now;
  view.media.updated = now;
  view.media.creationSession = auth.sessionDigest;
  view.media.clientAuth = auth.clientAuth;
  view.media.serverAuth = auth.serverAuth;
  view.media.attributes = std::move(*attributes);
  if (kind == MediaKind::Video && firstStream && !view.media.attributes.contains("video_source")) {
    view.media.attributes["video_source"] = streamOriginName(*firstStream);
  }
  auto error = store_.transaction([&]() -> OptionalError {
    if (auto error = store_.insertMedia(view.media)) return error;
    if (!firstStream) return std::nullopt;
    StreamRecord stream;
    stream.token = newToken("st");
    stream.media = view.media.token;
    stream.origin = *firstStream;
    stream.created = now;
    stream.updated = now;
    if (auto error = store_.insertStream(stream)) return error;
    view.streams.push_back(std::move(stream));
    return std::nullopt;
  });
  if (error) return *error;
  return view;
}

Result<MediaView> MediaLibrary::update(const std::string& application, MediaKind kind,
                                       const std::string& media, const FormParams& params) {
  Result<MediaView> result = notFound(kind, media);
  auto error = store_.transaction([&]() -> OptionalError {
    auto view = load(application, kind, media);
    if (!view) return view.error();
    auto attributes = MediaAttributes::applyToMedia(kind, view->media.attributes, params);
    if (!attributes) return attributes.error();
    view->media.attributes = std::move(*attributes);
    view->media.updated = unixNow();
    if (auto error = store_.updateMedia(view->media)) return error;
    result = std::move(*view);
    return std::nullopt;
  });
  if (error) return *error;
  return result;
}

Result<MediaView> MediaLibrary::remove(const std::string& application, MediaKind kind,
                                       const std::string& media) {
  Result<MediaView> result = notFound(kind, media);
  auto error = store_.transaction([&]() -> OptionalError {
    auto view = load(application, kind, media);
    if (!view) return view.error();
    if (auto error = store_.deleteMedia(media)) return error;
    result = std::move(*view);
    return std::nullopt;
  });
  if (error) return *error;
  std::error_code ignored;
  fs::remove_all(directory_.mediaDirectory(application, kind, media), ignored);
  return result;
}

Result<int64_t> MediaLibrary::removeAbandonedUploads(int64_t now) {
  // In batches: a sweep never holds the store for long.
  constexpr int64_t kBatch = 100;
  int64_t removed = 0;
  for (;;) {
    auto abandoned =
        store_.abandonedUploads(now - options_.unconfirmedVideoLifetimeSeconds, kBatch);
    if (!abandoned) return abandoned.error();
    for (const auto& media : *abandoned) {
      auto gone = remove(media.application, media.kind, media.token);
      if (!gone) return gone.error();
      ++removed;
    }
    if (static_cast<int64_t>(abandoned->size()) < kBatch) return removed;
  }
}

Result<StreamRecord> MediaLibrary::createStream(const std::string& application, MediaKind kind,
                                                const std::string& media, StreamOrigin origin) {
  Result<StreamRecord> result = notFound(kind, media);
  auto error = store_.transaction([&]() -> OptionalError {
    auto view = load(application, kind, media);
    if (!view) return view.error();
    StreamRecord stream;
    stream.token = newToken("st");
    stream.media = media;
    stream.origin = origin;
    stream.created = stream.updated = unixNow();
    if (auto error = store_.insertStream(stream)) return error;
    result = std::move(stream);
    return std::nullopt;
  });
  if (error) return *error;
  return result;
}

Result<MediaView> MediaLibrary::updateStream(const std::string& application, MediaKind kind,
                                             const std::string& media, const std::string& stream,
                                             const FormParams& params) {
  auto error = store_.transaction([&]() -> OptionalError {
    auto view = load(application, kind, media);
    if (!view) return view.error();
    const StreamRecord* found = view->stream(stream);
    if (!found) return streamNotFound(media, stream);
    StreamRecord changed = *found;
    auto attributes = MediaAttributes::applyToStream(changed.attributes, params);
    if (!attributes) return attributes.error();
    changed.attributes = std::move(*attributes);
    changed.updated = unixNow();
    return store_.updateStream(changed);
  });
  if (error) return *error;
  return load(application, kind, media);
}

Result<MediaView> MediaLibrary::removeStream(const std::string& application, MediaKind kind,
                                             const std::string& media, const std::string& stream) {
  auto error = store_.transaction([&]() -> OptionalError {
    auto view = load(application, kind, media);
    if (!view) return view.error();
    if (!view->stream(stream)) return streamNotFound(media, stream);
    return store_.deleteStream(stream);
  });
  if (error) return *error;
  std::error_code ignored;
  fs::remove_all(directory_.streamDirectory(application, kind, media, stream), ignored);
  return load(application, kind, media);
}

Result<MediaView> MediaLibrary::submit(const std::string& application, MediaKind kind,
                                       const std::string& media, const std::string& stream) {
  auto error = store_.transaction([&]() -> OptionalError {
    auto view = load(application, kind, media);
    if (!view) return view.error();
    const StreamRecord* found = view->stream(stream);
    if (!found) return streamNotFound(media, stream);
    StreamRecord changed = *found;
    if (changed.submitted) return Error::http(409, "stream " + stream + " was already submitted");
    bool awaitingRecording =
        changed.origin == StreamOrigin::Live &&
        (changed.state == StreamState::Created || changed.state == StreamState::Live);
    if (changed.state != StreamState::Uploaded && !awaitingRecording) {
      return Error::http(409, "stream " + stream + " has no file yet; attach or upload it first");
    }
    if (!changed.probeError.empty()) {
      return Error::http(422, "the stored file is not playable: " + changed.probeError);
    }
    changed.submitted = true;
    changed.submissionDate = changed.updated = unixNow();
    if (changed.state == StreamState::Uploaded) changed.state = StreamState::Ready;
    return store_.updateStream(changed);
  });
  if (error) return *error;
  return load(application, kind, media);
}

Result<MediaView> MediaLibrary::confirm(const std::string& application, MediaKind kind,
                                        const std::string& media, const std::string& stream) {
  auto error = store_.transaction([&]() -> OptionalError {
    auto view = load(application, kind, media);
    if (!view) return view.error();
    const StreamRecord* found = stream.empty() ? view->defaultStream() : view->stream(stream);
    if (!found) return streamNotFound(media, stream.empty() ? "(none)" : stream);
    StreamRecord changed = *found;
    if (changed.state == StreamState::Ready) {
      return Error::http(409, "stream " + changed.token + " was already confirmed");
    }
    if (changed.state != StreamState::Uploaded) {
      return Error::http(409, "the file of stream " + changed.token + " has not arrived yet");
    }
    if (!changed.probeError.empty()) {
      return Error::http(422, "the uploaded file is not playable: " + changed.probeError);
    }
    changed.state = StreamState::Ready;
    changed.submitted = true;
    changed.submissionDate = changed.updated = unixNow();
    return store_.updateStream(changed);
  });
  if (error) return *error;
  return load(application, kind, media);
}

Result<MediaView> MediaLibrary::attachCover(const std::string& application, MediaKind kind,
                                            const std::string& media, const std::string& stream,
                                            const std::string& jpegPath) {
  auto checked = analyzer_.analyze(jpegPath, MediaKind::Image);
  if (!checked) {
    removeQuietly(jpegPath);
    return Error::http(415, "the cover is not a picture: " + checked.error().message);
  }
  auto error = store_.transaction([&]() -> OptionalError {
    auto view = load(application, kind, media);
    if (!view) return view.error();
    const StreamRecord* found = view->stream(stream);
    if (!found) return streamNotFound(media, stream);
    StreamRecord changed = *found;
    std::string cover = directory_.coverFile(application, kind, media, stream);
    if (auto error = moveInto(jpegPath, cover)) return error;
    changed.coverSize = fileSize(cover);
    changed.coverChosen = true;
    changed.updated = unixNow();
    return store_.updateStream(changed);
  });
  if (error) {
    removeQuietly(jpegPath);
    return *error;
  }
  return load(application, kind, media);
}

Result<MediaView> MediaLibrary::attachFile(const std::string& application, MediaKind kind,
                                           const std::string& media, const std::string& stream,
                                           const std::string& filePath, Unplayable unplayable,
                                           bool fromIngest) {
  std::string coverPath;
  auto discard = [&](Error error) -> Result<MediaView> {
    removeQuietly(filePath);
    removeQuietly(coverPath);
    return error;
  };
  // Cheap checks first: no probing for a stream that cannot take the file.
  {
    auto view = load(application, kind, media);
    if (!view) return discard(view.error());
    const StreamRecord* found = view->stream(stream);
    if (!found) return discard(streamNotFound(media, stream));
    if (auto error = checkAttachable(*found, fromIngest)) return discard(*error);
  }
  auto facts = analyzer_.analyze(filePath, kind);
  if (!facts && unplayable == Unplayable::Refuse) {
    return discard(Error::media("the file is not playable " + std::string(mediaKindName(kind)) +
                                ": " + facts.error().message));
  }
  int64_t grabbedSize = 0;
  if (facts && facts->hasVideo) {
    coverPath = directory_.newTemporaryPath(".jpg");
    auto grabbed = analyzer_.grabCover(filePath, coverPath);
    if (grabbed) {
      grabbedSize = *grabbed;
    } else {
      removeQuietly(coverPath);
      coverPath.clear();
    }
  }

  auto error = store_.transaction([&]() -> OptionalError {
    // Read again: the stream may have changed while the file was analysed.
    auto view = load(application, kind, media);
    if (!view) return view.error();
    const StreamRecord* found = view->stream(stream);
    if (!found) return streamNotFound(media, stream);
    if (auto error = checkAttachable(*found, fromIngest)) return error;
    StreamRecord changed = *found;
    std::string target = directory_.streamFile(application, kind, media, stream);
    if (auto error = moveInto(filePath, target)) return error;
    if (!changed.coverChosen) {
      std::string cover = directory_.coverFile(application, kind, media, stream);
      if (!coverPath.empty()) {
        if (auto error = moveInto(coverPath, cover)) return error;
        coverPath.clear();
      } else {
        removeQuietly(cover);  // a cover grabbed from the previous file no longer fits
      }
      changed.coverSize = grabbedSize;
    }
    changed.fileSize = fileSize(target);
    changed.width = facts ? facts->width : 0;
    changed.height = facts ? facts->height : 0;
    changed.duration = facts ? facts->duration : 0.0;
    changed.hasVideo = facts && facts->hasVideo;
    changed.hasAudio = facts && facts->hasAudio;
    changed.probeError = facts ? "" : facts.error().message;
    // A live stream submitted while it was still recording becomes ready once stored.
    changed.state = changed.submitted ? StreamState::Ready : StreamState::Uploaded;
    changed.updated = unixNow();
    return store_.updateStream(changed);
  });
  if (error) return discard(*error);
  removeQuietly(coverPath);
  return load(application, kind, media);
}

std::string MediaLibrary::objectKey(const std::string& application, MediaKind kind,
                                    const std::string& media, const std::string& stream) {
  return "applications/" + application + "/" + mediaKindCollection(kind) + "/" + media +
         "/streams/" + stream + "/" + mediaFileName(kind);
}

Result<nlohmann::ordered_json> MediaLibrary::uploadForm(const std::string& application,
                                                        MediaKind kind, const std::string& media,
                                                        const std::string& stream) {
  int64_t now = unixNow();
  UploadTicket ticket;
  ticket.objectKey = objectKey(application, kind, media, stream);
  ticket.application = application;
  ticket.kind = kind;
  ticket.media = media;
  ticket.stream = stream;
  ticket.contentType = mediaContentType(kind);
  ticket.maxBytes = static_cast<int64_t>(kind == MediaKind::Image ? options_.maxImageBytes
                                                                  : options_.maxUploadBytes);
  ticket.expires = now + options_.uploadUrlLifetimeSeconds;
  auto error = store_.transaction([&]() -> OptionalError {
    if (auto error = store_.deleteExpiredUploads(now)) return error;
    return store_.insertUpload(ticket);
  });
  if (error) return *error;
  StorageUploadRequest request;
  request.key = ticket.objectKey;
  request.contentType = ticket.contentType;
  request.maxBytes = ticket.maxBytes;
  request.now = now;
  request.expires = ticket.expires;
  return signer_.sign(request);
}

Result<UploadTicket> MediaLibrary::ticket(const std::string& objectKey) {
  auto found = store_.findUpload(objectKey);
  if (!found) return found.error();
  if (!*found) return Error::http(403, "no upload was issued for this key");
  if ((*found)->expires < unixNow()) return Error::http(403, "the upload for this key expired");
  return std::move(**found);
}

Result<StreamRecord> MediaLibrary::startLive(const std::string& application,
                                             const std::string& media, const std::string& stream) {
  Result<StreamRecord> result = streamNotFound(media, stream);
  auto error = store_.transaction([&]() -> OptionalError {
    auto view = load(application, MediaKind::Video, media);
    if (!view) return view.error();
    const StreamRecord* found = view->stream(stream);
    if (!found) return streamNotFound(media, stream);
    if (found->origin != StreamOrigin::Live) {
      return Error::http(403, "stream " + stream + " was not created for live publishing");
    }
    if (found->state == StreamState::Live) {
      return Error::http(409, "stream " + stream + " is already being published");
    }
    if (found->state != StreamState::Created) {
      return Error::http(409, "stream " + stream + " already holds a recording");
    }
    StreamRecord changed = *found;
    changed.state = StreamState::Live;
    changed.updated = unixNow();
    if (auto error = store_.updateStream(changed)) return error;
    result = std::move(changed);
    return std::nullopt;
  });
  if (error) return *error;
  return result;
}

OptionalError MediaLibrary::abandonLive(const std::string& application, const std::string& media,
                                        const std::string& stream) {
  return store_.transaction([&]() -> OptionalError {
    auto view = load(application, MediaKind::Video, media);
    if (!view) return view.error();
    const StreamRecord* found = view->stream(stream);
    if (!found || found->state != StreamState::Live) return std::nullopt;
    StreamRecord changed = *found;
    changed.state = StreamState::Created;
    changed.updated = unixNow();
    return store_.updateStream(changed);
  });
}

Result<ServedFile> MediaLibrary::mediaFile(const std::string& application, MediaKind kind,
                                           const std::string& media) {
  auto view = load(application, kind, media);
  if (!view) return view.error();
  const StreamRecord* stream = view->defaultStream();
  if (!stream || (stream->state != StreamState::Uploaded && stream->state != StreamState::Ready)) {
    return Error::http(
        404, std::string("the ") + mediaKindName(kind) + " " + media + " has no file yet");
  }
  return ServedFile{directory_.streamFile(application, kind, media, stream->token),
                    mediaContentType(kind)};
}

Result<ServedFile> MediaLibrary::coverFile(const std::string& application, MediaKind kind,
                                           const std::string& media) {
  auto view = load(application, kind, media);
  if (!view) return view.error();
  const StreamRecord* preferred = view->defaultStream();
  if (preferred && preferred->coverSize > 0) {
    return ServedFile{directory_.coverFile(application, kind, media, preferred->token),
                      "image/jpeg"};
  }
  for (auto it = view->streams.rbegin(); it != view->streams.rend(); ++it) {
    if (it->coverSize > 0) {
      return ServedFile{directory_.coverFile(application, kind, media, it->token), "image/jpeg"};
    }
  }
  return Error::http(404,
                     std::string("the ") + mediaKindName(kind) + " " + media + " has no cover yet");
}

}  // namespace nembra
