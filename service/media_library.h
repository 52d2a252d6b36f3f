// The service's media logic: creating, reading, changing and deleting videos, audios and images
// and their streams, storing their files, and moving each stream through its states:
//
//   created --(file attached or uploaded)--> uploaded --(submit or confirm)--> ready
//   created --(RTMP publish starts)--> live --(recording stored)--> uploaded, or ready when the
//                                                                   client submitted meanwhile
//
// A submit or confirm before the file arrived is refused (409), as is a second one. Files are
// analysed before they are accepted; a cover is grabbed when the client chose none.
//
// Threading: any thread, several requests at once. Each change re-reads its rows inside one
// store transaction, so concurrent changes to the same media serialize; probing and cover grabs
// run outside it.
#pragma once

#include <atomic>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "service/data_directory.h"
#include "service/form_params.h"
#include "service/media_analyzer.h"
#include "service/media_store.h"
#include "service/media_view.h"
#include "service/result.h"
#include "service/service_options.h"
#include "service/session_registry.h"
#include "service/storage_policy_signer.h"

namespace nembra {

// A stored file ready to be served.
struct ServedFile {
  std::string path;
  std::string contentType;
};

class MediaLibrary {
 public:
  // What to do with an uploaded file that is not playable media: refuse it (the multipart attach
  // answers 422 and the stream keeps its old file) or keep it with the probe's error (storage
  // accepts any object; the confirm then fails).
  enum class Unplayable { Refuse, Keep };

  MediaLibrary(MediaStore& store, const DataDirectory& directory, const MediaAnalyzer& analyzer,
               const StoragePolicySigner& signer, const ServiceOptions& options);

  Result<std::vector<MediaView>> list(const std::string& application, MediaKind kind, int64_t limit,
                                      int64_t offset);
  Result<MediaView> get(const std::string& application, MediaKind kind, const std::string& media);
  // The media whatever its kind, for paths that name only a token.
  Result<MediaView> find(const std::string& application, const std::string& media);

  // A new media with the settable fields of |params|, and a first stream when |firstStream|.
  Result<MediaView> create(const RequestAuth& auth, MediaKind kind, const FormParams& params,
                           std::optional<StreamOrigin> firstStream);
  Result<MediaView> update(const std::string& application, MediaKind kind, const std::string& media,
                           const FormParams& params);
  // The media as it was; its files are gone.
  // Removes the media created for an upload whose file never came, once they are older than
  // the options' unconfirmedVideoLifetimeSeconds; how many went. A client resuming such an
  // upload within that time reuses its media.
  Result<int64_t> removeAbandonedUploads(int64_t now);
  Result<MediaView> remove(const std::string& application, MediaKind kind,
                           const std::string& media);

  Result<StreamRecord> createStream(const std::string& application, MediaKind kind,
                                    const std::string& media, StreamOrigin origin);
  Result<MediaView> updateStream(const std::string& application, MediaKind kind,
                                 const std::string& media, const std::string& stream,
                                 const FormParams& params);
  Result<MediaView> removeStream(const std::string& application, MediaKind kind,
                                 const std::string& media, const std::string& stream);

  // The recorder's submit: uploaded -> ready; on a live stream still recording, marks it to
  // become ready when the recording is stored.
  Result<MediaView> submit(const std::string& application, MediaKind kind, const std::string& media,
                           const std::string& stream);
  // The upload flow's confirm: uploaded -> ready. Without |stream|, the media's default stream.
  Result<MediaView> confirm(const std::string& application, MediaKind kind,
                            const std::string& media, const std::string& stream);

  // Moves the JPEG at |jpegPath| in as the stream's chosen cover; it is removed on failure.
  Result<MediaView> attachCover(const std::string& application, MediaKind kind,
                                const std::string& media, const std::string& stream,
                                const std::string& jpegPath);
  // Moves the file at |filePath| in as the stream's file; it is removed on failure. |fromIngest|
  // accepts a stream that is live (the recording of its publish).
  Result<MediaView> attachFile(const std::string& application, MediaKind kind,
                               const std::string& media, const std::string& stream,
                               const std::string& filePath, Unplayable unplayable,
                               bool fromIngest = false);

  // The signed storage form for the stream's file, recorded as an upload ticket.
  Result<nlohmann::ordered_json> uploadForm(const std::string& application, MediaKind kind,
                                            const std::string& media, const std::string& stream);
  // The ticket of a posted object key: 403 when none was issued or it expired.
  Result<UploadTicket> ticket(const std::string& objectKey);
  static std::string objectKey(const std::string& application, MediaKind kind,
                               const std::string& media, const std::string& stream);

  // An RTMP publish to a live stream begins: created -> live. Refused unless the stream was made
  // for live publishing and holds nothing yet.
  Result<StreamRecord> startLive(const std::string& application, const std::string& media,
                                 const std::string& stream);
  // A publish ended without a recording being stored: live -> created, so it may be retried.
  OptionalError abandonLive(const std::string& application, const std::string& media,
                            const std::string& stream);

  // The file a media's CDN or file-server URL serves: the default stream's.
  Result<ServedFile> mediaFile(const std::string& application, MediaKind kind,
                               const std::string& media);
  Result<ServedFile> coverFile(const std::string& application, MediaKind kind,
                               const std::string& media);

  const DataDirectory& directory() const { return directory_; }

 private:
  Result<MediaView> load(const std::string& application, std::optional<MediaKind> kind,
                         const std::string& media);
  static Error notFound(MediaKind kind, const std::string& token);
  static Error streamNotFound(const std::string& media, const std::string& stream);

  MediaStore& store_;
  const DataDirectory& directory_;
  const MediaAnalyzer& analyzer_;
  const StoragePolicySigner& signer_;
  const ServiceOptions& options_;
  std::atomic<int64_t> lastAbandonedSweep_{0};  // Unix seconds
};

}  // namespace nembra
