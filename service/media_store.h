// The service's metadata in one SQLite database (WAL journal): applications, sessions, media,
// streams, upload tickets, diagnostic events and settings. Files live beside it, under the data
// directory; the database never holds a path.
//
// Threading: every method may be called from any thread. One connection serves all of them in
// turn; transaction() holds it for the whole body, and calls made inside the body (on the same
// thread) join that transaction.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "service/media_records.h"
#include "service/result.h"

struct sqlite3;
struct sqlite3_stmt;

namespace nembra {

class MediaStore {
 public:
  // Opens (creating when missing) the database at |path| and brings its schema up to date.
  static Result<std::unique_ptr<MediaStore>> open(const std::string& path);
  ~MediaStore();
  MediaStore(const MediaStore&) = delete;
  MediaStore& operator=(const MediaStore&) = delete;

  // Runs |body| in one transaction: committed when it returns no error, rolled back otherwise.
  OptionalError transaction(const std::function<OptionalError()>& body);

  Result<std::optional<std::string>> setting(const std::string& name);
  OptionalError putSetting(const std::string& name, const std::string& value);

  OptionalError ensureApplication(const std::string& token, int64_t now);
  Result<std::vector<std::string>> applications();

  OptionalError insertSession(const SessionRecord& session);
  Result<std::optional<SessionRecord>> findSession(const std::string& token);
  OptionalError updateSession(const SessionRecord& session);  // last use included
  // Removes the sessions last used before |cutoff|; how many went.
  Result<int64_t> deleteSessionsUnusedSince(int64_t cutoff);

  OptionalError insertMedia(MediaRecord& media);  // fills seq
  Result<std::optional<MediaRecord>> findMedia(const std::string& token);
  // Newest first.
  Result<std::vector<MediaRecord>> listMedia(const std::string& application, MediaKind kind,
                                             int64_t limit, int64_t offset);
  OptionalError updateMedia(const MediaRecord& media);
  // Media created before |createdBefore| for an upload that never came: every stream of theirs
  // is an upload stream still waiting for its file. At most |limit|.
  Result<std::vector<MediaRecord>> abandonedUploads(int64_t createdBefore, int64_t limit);
  // Its streams and tickets go with it.
  OptionalError deleteMedia(const std::string& token);

  OptionalError insertStream(StreamRecord& stream);  // fills seq
  Result<std::optional<StreamRecord>> findStream(const std::string& token);
  // Oldest first.
  Result<std::vector<StreamRecord>> listStreams(const std::string& media);
  OptionalError updateStream(const StreamRecord& stream);
  OptionalError deleteStream(const std::string& token);
  // Streams left live by a service that stopped mid-publish go back to created.
  OptionalError resetLiveStreams(int64_t now);

  OptionalError insertUpload(const UploadTicket& ticket);
  Result<std::optional<UploadTicket>> findUpload(const std::string& objectKey);
  OptionalError deleteExpiredUploads(int64_t now);

  Result<int64_t> insertEvent(const DebuggerEvent& event);
  // Newest first.
  Result<std::vector<DebuggerEvent>> listEvents(const std::string& application, int64_t limit);

 private:
  class Statement;
  explicit MediaStore(sqlite3* db);
  OptionalError migrate();
  OptionalError exec(const char* sql);
  Statement prepare(const char* sql);  // invalid when SQLite refuses the text
  static MediaRecord readMedia(const Statement& row);
  static StreamRecord readStream(const Statement& row);
  Error sqliteError(const std::string& what) const;

  sqlite3* db_;
  std::recursive_mutex mutex_;                                // guards db_ and cache_
  std::vector<std::pair<const char*, sqlite3_stmt*>> cache_;  // prepared statements by SQL text
};

}  // namespace nembra
