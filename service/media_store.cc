#include "service/media_store.h"

#include <sqlite3.h>

#include "platform/http/http_time.h"

namespace nembra {

// A cached prepared statement in use: bound, stepped, then reset when it goes out of scope so
// the next user finds it clean. Used only while the store's mutex is held.
class MediaStore::Statement {
 public:
  explicit Statement(sqlite3_stmt* statement) : statement_(statement) {}
  bool valid() const { return statement_ != nullptr; }
  Statement(Statement&& other) noexcept : statement_(other.statement_) {
    other.statement_ = nullptr;
  }
  Statement& operator=(Statement&&) = delete;
  ~Statement() {
    if (statement_) {
      sqlite3_reset(statement_);
      sqlite3_clear_bindings(statement_);
    }
  }

  Statement& bind(int index, const std::string& text) {
    sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()),
                      SQLITE_TRANSIENT);
    return *this;
  }
  Statement& bind(int index, int64_t value) {
    sqlite3_bind_int64(statement_, index, value);
    return *this;
  }
  Statement& bind(int index, double value) {
    sqlite3_bind_double(statement_, index, value);
    return *this;
  }

  // SQLITE_ROW, SQLITE_DONE or an error code.
  int step() { return sqlite3_step(statement_); }

  std::string text(int column) const {
    auto* data = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return data ? std::string(data, sqlite3_column_bytes(statement_, column)) : std::string();
  }
  int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  double real(int column) const { return sqlite3_column_double(statement_, column); }

 private:
  sqlite3_stmt* statement_;
};

namespace {

nlohmann::json parseAttributes(const std::string& text) {
  auto value = nlohmann::json::parse(text, nullptr, false);
  return value.is_object() ? value : nlohmann::json::object();
}

}  // namespace

MediaRecord MediaStore::readMedia(const Statement& row) {
  MediaRecord media;
  media.seq = row.integer(0);
  media.token = row.text(1);
  media.application = row.text(2);
  media.kind = static_cast<MediaKind>(row.integer(3));
  media.created = row.integer(4);
  media.updated = row.integer(5);
  media.creationSession = row.text(6);
  media.clientAuth = row.text(7);
  media.serverAuth = row.text(8);
  media.attributes = parseAttributes(row.text(9));
  return media;
}

StreamRecord MediaStore::readStream(const Statement& row) {
  StreamRecord stream;
  stream.seq = row.integer(0);
  stream.token = row.text(1);
  stream.media = row.text(2);
  stream.origin = static_cast<StreamOrigin>(row.integer(3));
  stream.state = static_cast<StreamState>(row.integer(4));
  stream.created = row.integer(5);
  stream.updated = row.integer(6);
  stream.submitted = row.integer(7) != 0;
  stream.submissionDate = row.integer(8);
  stream.fileSize = row.integer(9);
  stream.coverSize = row.integer(10);
  stream.coverChosen = row.integer(11) != 0;
  stream.width = static_cast<int>(row.integer(12));
  stream.height = static_cast<int>(row.integer(13));
  stream.duration = row.real(14);
  stream.hasVideo = row.integer(15) != 0;
  stream.hasAudio = row.integer(16) != 0;
  stream.probeError = row.text(17);
  stream.attributes = parseAttributes(row.text(18));
  return stream;
}

Result<std::unique_ptr<MediaStore>> MediaStore::open(const std::string& path) {
  sqlite3* db = nullptr;
  int rc =
      sqlite3_open_v2(path.c_str(), &db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    std::string message = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close(db);
    return Error::file("cannot open the database " + path + ": " + message, rc);
  }
  std::unique_ptr<MediaStore> store(new MediaStore(db));
  sqlite3_busy_timeout(db, 5000);
  if (auto error = store->migrate()) return *error;
  return store;
}

MediaStore::MediaStore(sqlite3* db) : db_(db) {}

MediaStore::~MediaStore() {
  for (auto& [sql, statement] : cache_) sqlite3_finalize(statement);
  sqlite3_close(db_);
}

Error MediaStore::sqliteError(const std::string& what) const {
  return Error::file(what + ": " + sqlite3_errmsg(db_), sqlite3_errcode(db_));
}

OptionalError MediaStore::exec(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : "unknown error";
    sqlite3_free(message);
    return Error::file(std::string("database statement failed: ") + text);
  }
  return std::nullopt;
}

OptionalError MediaStore::migrate() {
  std::lock_guard lock(mutex_);
  // WAL lets readers go on while a writer commits; NORMAL syncs at checkpoints only, which keeps
  // everything committed across a crash of this process.
  if (auto error = exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; "
                        "PRAGMA foreign_keys=ON;")) {
    return error;
  }
  if (auto error = exec(R"sql(
    CREATE TABLE IF NOT EXISTS settings (
      name TEXT PRIMARY KEY, value TEXT NOT NULL);
    CREATE TABLE IF NOT EXISTS applications (
      token TEXT PRIMARY KEY, created INTEGER NOT NULL);
    CREATE TABLE IF NOT EXISTS sessions (
      token TEXT PRIMARY KEY, application TEXT NOT NULL DEFAULT '', created INTEGER NOT NULL,
      client_auth TEXT NOT NULL DEFAULT '', server_auth TEXT NOT NULL DEFAULT '');
    CREATE TABLE IF NOT EXISTS media (
      seq INTEGER PRIMARY KEY AUTOINCREMENT,
      token TEXT NOT NULL UNIQUE, application TEXT NOT NULL, kind INTEGER NOT NULL,
      created INTEGER NOT NULL, updated INTEGER NOT NULL,
      creation_session TEXT NOT NULL DEFAULT '', client_auth TEXT NOT NULL DEFAULT '',
      server_auth TEXT NOT NULL DEFAULT '', attributes TEXT NOT NULL DEFAULT '{}');
    CREATE INDEX IF NOT EXISTS media_by_application ON media (application, kind, seq);
    CREATE TABLE IF NOT EXISTS streams (
      seq INTEGER PRIMARY KEY AUTOINCREMENT,
      token TEXT NOT NULL UNIQUE,
      media TEXT NOT NULL REFERENCES media (token) ON DELETE CASCADE,
      origin INTEGER NOT NULL, state INTEGER NOT NULL,
      created INTEGER NOT NULL, updated INTEGER NOT NULL,
      submitted INTEGER NOT NULL DEFAULT 0, submission_date INTEGER NOT NULL DEFAULT 0,
      file_size INTEGER NOT NULL DEFAULT 0, cover_size INTEGER NOT NULL DEFAULT 0,
      cover_chosen INTEGER NOT NULL DEFAULT 0, width INTEGER NOT NULL DEFAULT 0,
      height INTEGER NOT NULL DEFAULT 0, duration REAL NOT NULL DEFAULT 0,
      has_video INTEGER NOT NULL DEFAULT 0, has_audio INTEGER NOT NULL DEFAULT 0,
      probe_error TEXT NOT NULL DEFAULT '', attributes TEXT NOT NULL DEFAULT '{}');
    CREATE INDEX IF NOT EXISTS streams_by_media ON streams (media, seq);
    CREATE TABLE IF NOT EXISTS uploads (
      object_key TEXT PRIMARY KEY, application TEXT NOT NULL, kind INTEGER NOT NULL,
      media TEXT NOT NULL REFERENCES media (token) ON DELETE CASCADE,
      stream TEXT NOT NULL REFERENCES streams (token) ON DELETE CASCADE,
      content_type TEXT NOT NULL, max_bytes INTEGER NOT NULL, expires INTEGER NOT NULL);
    CREATE TABLE IF NOT EXISTS events (
      id INTEGER PRIMARY KEY AUTOINCREMENT, application TEXT NOT NULL,
      received INTEGER NOT NULL, payload TEXT NOT NULL, valid_json INTEGER NOT NULL);
    CREATE INDEX IF NOT EXISTS events_by_application ON events (application, id);
  )sql")) {
    return error;
  }
  // Databases from before sessions expired: their sessions count as used now.
  if (exec("ALTER TABLE sessions ADD COLUMN last_used INTEGER NOT NULL DEFAULT 0") ==
      std::nullopt) {
    if (auto error =
            exec(("UPDATE sessions SET last_used = " + std::to_string(unixNow())).c_str())) {
      return error;
    }
  }
  return exec("CREATE INDEX IF NOT EXISTS sessions_by_last_use ON sessions (last_used)");
}

MediaStore::Statement MediaStore::prepare(const char* sql) {
  for (auto& [text, statement] : cache_) {
    if (text == sql) return Statement(statement);
  }
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
      SQLITE_OK) {
    return Statement(nullptr);
  }
  cache_.emplace_back(sql, statement);
  return Statement(statement);
}

OptionalError MediaStore::transaction(const std::function<OptionalError()>& body) {
  std::lock_guard lock(mutex_);
  if (!sqlite3_get_autocommit(db_)) return body();  // already inside one on this thread
  if (auto error = exec("BEGIN IMMEDIATE")) return error;
  OptionalError error = body();
  if (error) {
    exec("ROLLBACK");
    return error;
  }
  if (auto commitError = exec("COMMIT")) {
    exec("ROLLBACK");
    return commitError;
  }
  return std::nullopt;
}

Result<std::optional<std::string>> MediaStore::setting(const std::string& name) {
  std::lock_guard lock(mutex_);
  Statement query = prepare("SELECT value FROM settings WHERE name = ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, name);
  int rc = query.step();
  if (rc == SQLITE_ROW) return std::optional<std::string>(query.text(0));
  if (rc == SQLITE_DONE) return std::optional<std::string>();
  return sqliteError("cannot read a setting");
}

OptionalError MediaStore::putSetting(const std::string& name, const std::string& value) {
  std::lock_guard lock(mutex_);
  Statement query = prepare("INSERT OR REPLACE INTO settings (name, value) VALUES (?, ?)");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, name).bind(2, value);
  if (query.step() != SQLITE_DONE) return sqliteError("cannot store a setting");
  return std::nullopt;
}

OptionalError MediaStore::ensureApplication(const std::string& token, int64_t now) {
  std::lock_guard lock(mutex_);
  Statement query = prepare("INSERT OR IGNORE INTO applications (token, created) VALUES (?, ?)");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, token).bind(2, now);
  if (query.step() != SQLITE_DONE) return sqliteError("cannot store an application");
  return std::nullopt;
}

Result<std::vector<std::string>> MediaStore::applications() {
  std::lock_guard lock(mutex_);
  Statement query = prepare("SELECT token FROM applications ORDER BY created, token");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  std::vector<std::string> tokens;
  int rc;
  while ((rc = query.step()) == SQLITE_ROW) tokens.push_back(query.text(0));
  if (rc != SQLITE_DONE) return sqliteError("cannot list applications");
  return tokens;
}

OptionalError MediaStore::insertSession(const SessionRecord& session) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "INSERT INTO sessions (token, application, created, client_auth, server_auth, last_used) "
      "VALUES (?, ?, ?, ?, ?, ?)");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, session.token)
      .bind(2, session.application)
      .bind(3, session.created)
      .bind(4, session.clientAuth)
      .bind(5, session.serverAuth)
      .bind(6, session.lastUsed);
  if (query.step() != SQLITE_DONE) return sqliteError("cannot store a session");
  return std::nullopt;
}

Result<std::optional<SessionRecord>> MediaStore::findSession(const std::string& token) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "SELECT token, application, created, client_auth, server_auth, last_used FROM sessions "
      "WHERE token = ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, token);
  int rc = query.step();
  if (rc == SQLITE_DONE) return std::optional<SessionRecord>();
  if (rc != SQLITE_ROW) return sqliteError("cannot read a session");
  SessionRecord session;
  session.token = query.text(0);
  session.application = query.text(1);
  session.created = query.integer(2);
  session.clientAuth = query.text(3);
  session.serverAuth = query.text(4);
  session.lastUsed = query.integer(5);
  return std::optional<SessionRecord>(std::move(session));
}

OptionalError MediaStore::updateSession(const SessionRecord& session) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "UPDATE sessions SET application = ?, client_auth = ?, server_auth = ?, last_used = ? "
      "WHERE token = ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, session.application)
      .bind(2, session.clientAuth)
      .bind(3, session.serverAuth)
      .bind(4, session.lastUsed)
      .bind(5, session.token);
  if (query.step() != SQLITE_DONE) return sqliteError("cannot update a session");
  return std::nullopt;
}

Result<int64_t> MediaStore::deleteSessionsUnusedSince(int64_t cutoff) {
  std::lock_guard lock(mutex_);
  Statement query = prepare("DELETE FROM sessions WHERE last_used < ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, cutoff);
  if (query.step() != SQLITE_DONE) return sqliteError("cannot remove expired sessions");
  return static_cast<int64_t>(sqlite3_changes(db_));
}

OptionalError MediaStore::insertMedia(MediaRecord& media) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "INSERT INTO media (token, application, kind, created, updated, "
      "creation_session, client_auth, server_auth, attributes) "
      "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, media.token)
      .bind(2, media.application)
      .bind(3, static_cast<int64_t>(media.kind))
      .bind(4, media.created)
      .bind(5, media.updated)
      .bind(6, media.creationSession)
      .bind(7, media.clientAuth)
      .bind(8, media.serverAuth)
      .bind(9, media.attributes.dump());
  if (query.step() != SQLITE_DONE) return sqliteError("cannot store a media");
  media.seq = sqlite3_last_insert_rowid(db_);
  return std::nullopt;
}

Result<std::optional<MediaRecord>> MediaStore::findMedia(const std::string& token) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "SELECT seq, token, application, kind, created, updated, creation_session, "
      "client_auth, server_auth, attributes FROM media WHERE token = ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, token);
  int rc = query.step();
  if (rc == SQLITE_DONE) return std::optional<MediaRecord>();
  if (rc != SQLITE_ROW) return sqliteError("cannot read a media");
  return std::optional<MediaRecord>(readMedia(query));
}

Result<std::vector<MediaRecord>> MediaStore::listMedia(const std::string& application,
                                                       MediaKind kind, int64_t limit,
                                                       int64_t offset) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "SELECT seq, token, application, kind, created, updated, creation_session, "
      "client_auth, server_auth, attributes FROM media "
      "WHERE application = ? AND kind = ? ORDER BY seq DESC LIMIT ? OFFSET ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, application).bind(2, static_cast<int64_t>(kind)).bind(3, limit).bind(4, offset);
  std::vector<MediaRecord> list;
  int rc;
  while ((rc = query.step()) == SQLITE_ROW) list.push_back(readMedia(query));
  if (rc != SQLITE_DONE) return sqliteError("cannot list media");
  return list;
}

Result<std::vector<MediaRecord>> MediaStore::abandonedUploads(int64_t createdBefore,
                                                              int64_t limit) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "SELECT seq, token, application, kind, created, updated, creation_session, "
      "client_auth, server_auth, attributes FROM media m WHERE created < ? "
      "AND EXISTS (SELECT 1 FROM streams s WHERE s.media = m.token) "
      "AND NOT EXISTS (SELECT 1 FROM streams s WHERE s.media = m.token "
      "AND (s.origin != ? OR s.state != ?)) ORDER BY seq LIMIT ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, createdBefore)
      .bind(2, static_cast<int64_t>(StreamOrigin::Upload))
      .bind(3, static_cast<int64_t>(StreamState::Created))
      .bind(4, limit);
  std::vector<MediaRecord> list;
  int rc;
  while ((rc = query.step()) == SQLITE_ROW) list.push_back(readMedia(query));
  if (rc != SQLITE_DONE) return sqliteError("cannot list abandoned uploads");
  return list;
}

OptionalError MediaStore::updateMedia(const MediaRecord& media) {
  std::lock_guard lock(mutex_);
  Statement query = prepare("UPDATE media SET updated = ?, attributes = ? WHERE token = ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, media.updated).bind(2, media.attributes.dump()).bind(3, media.token);
  if (query.step() != SQLITE_DONE) return sqliteError("cannot update a media");
  return std::nullopt;
}

OptionalError MediaStore::deleteMedia(const std::string& token) {
  std::lock_guard lock(mutex_);
  Statement query = prepare("DELETE FROM media WHERE token = ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, token);
  if (query.step() != SQLITE_DONE) return sqliteError("cannot delete a media");
  return std::nullopt;
}

OptionalError MediaStore::insertStream(StreamRecord& stream) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "INSERT INTO streams (token, media, origin, state, created, updated, submitted, "
      "submission_date, file_size, cover_size, cover_chosen, width, height, duration, "
      "has_video, has_audio, probe_error, attributes) "
      "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, stream.token)
      .bind(2, stream.media)
      .bind(3, static_cast<int64_t>(stream.origin))
      .bind(4, static_cast<int64_t>(stream.state))
      .bind(5, stream.created)
      .bind(6, stream.updated)
      .bind(7, static_cast<int64_t>(stream.submitted))
      .bind(8, stream.submissionDate)
      .bind(9, stream.fileSize)
      .bind(10, stream.coverSize)
      .bind(11, static_cast<int64_t>(stream.coverChosen))
      .bind(12, static_cast<int64_t>(stream.width))
      .bind(13, static_cast<int64_t>(stream.height))
      .bind(14, stream.duration)
      .bind(15, static_cast<int64_t>(stream.hasVideo))
      .bind(16, static_cast<int64_t>(stream.hasAudio))
      .bind(17, stream.probeError)
      .bind(18, stream.attributes.dump());
  if (query.step() != SQLITE_DONE) return sqliteError("cannot store a stream");
  stream.seq = sqlite3_last_insert_rowid(db_);
  return std::nullopt;
}

Result<std::optional<StreamRecord>> MediaStore::findStream(const std::string& token) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "SELECT seq, token, media, origin, state, created, updated, submitted, "
      "submission_date, file_size, cover_size, cover_chosen, width, height, duration, "
      "has_video, has_audio, probe_error, attributes FROM streams WHERE token = ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, token);
  int rc = query.step();
  if (rc == SQLITE_DONE) return std::optional<StreamRecord>();
  if (rc != SQLITE_ROW) return sqliteError("cannot read a stream");
  return std::optional<StreamRecord>(readStream(query));
}

Result<std::vector<StreamRecord>> MediaStore::listStreams(const std::string& media) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "SELECT seq, token, media, origin, state, created, updated, submitted, "
      "submission_date, file_size, cover_size, cover_chosen, width, height, duration, "
      "has_video, has_audio, probe_error, attributes FROM streams WHERE media = ? "
      "ORDER BY seq");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, media);
  std::vector<StreamRecord> list;
  int rc;
  while ((rc = query.step()) == SQLITE_ROW) list.push_back(readStream(query));
  if (rc != SQLITE_DONE) return sqliteError("cannot list streams");
  return list;
}

OptionalError MediaStore::updateStream(const StreamRecord& stream) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "UPDATE streams SET state = ?, updated = ?, submitted = ?, submission_date = ?, "
      "file_size = ?, cover_size = ?, cover_chosen = ?, width = ?, height = ?, "
      "duration = ?, has_video = ?, has_audio = ?, probe_error = ?, attributes = ? "
      "WHERE token = ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, static_cast<int64_t>(stream.state))
      .bind(2, stream.updated)
      .bind(3, static_cast<int64_t>(stream.submitted))
      .bind(4, stream.submissionDate)
      .bind(5, stream.fileSize)
      .bind(6, stream.coverSize)
      .bind(7, static_cast<int64_t>(stream.coverChosen))
      .bind(8, static_cast<int64_t>(stream.width))
      .bind(9, static_cast<int64_t>(stream.height))
      .bind(10, stream.duration)
      .bind(11, static_cast<int64_t>(stream.hasVideo))
      .bind(12, static_cast<int64_t>(stream.hasAudio))
      .bind(13, stream.probeError)
      .bind(14, stream.attributes.dump())
      .bind(15, stream.token);
  if (query.step() != SQLITE_DONE) return sqliteError("cannot update a stream");
  return std::nullopt;
}

OptionalError MediaStore::deleteStream(const std::string& token) {
  std::lock_guard lock(mutex_);
  Statement query = prepare("DELETE FROM streams WHERE token = ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, token);
  if (query.step() != SQLITE_DONE) return sqliteError("cannot delete a stream");
  return std::nullopt;
}

OptionalError MediaStore::resetLiveStreams(int64_t now) {
  std::lock_guard lock(mutex_);
  Statement query = prepare("UPDATE streams SET state = ?, updated = ? WHERE state = ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, static_cast<int64_t>(StreamState::Created))
      .bind(2, now)
      .bind(3, static_cast<int64_t>(StreamState::Live));
  if (query.step() != SQLITE_DONE) return sqliteError("cannot reset live streams");
  return std::nullopt;
}

OptionalError MediaStore::insertUpload(const UploadTicket& ticket) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "INSERT OR REPLACE INTO uploads (object_key, application, kind, media, stream, "
      "content_type, max_bytes, expires) VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, ticket.objectKey)
      .bind(2, ticket.application)
      .bind(3, static_cast<int64_t>(ticket.kind))
      .bind(4, ticket.media)
      .bind(5, ticket.stream)
      .bind(6, ticket.contentType)
      .bind(7, ticket.maxBytes)
      .bind(8, ticket.expires);
  if (query.step() != SQLITE_DONE) return sqliteError("cannot store an upload ticket");
  return std::nullopt;
}

Result<std::optional<UploadTicket>> MediaStore::findUpload(const std::string& objectKey) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "SELECT object_key, application, kind, media, stream, content_type, max_bytes, "
      "expires FROM uploads WHERE object_key = ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, objectKey);
  int rc = query.step();
  if (rc == SQLITE_DONE) return std::optional<UploadTicket>();
  if (rc != SQLITE_ROW) return sqliteError("cannot read an upload ticket");
  UploadTicket ticket;
  ticket.objectKey = query.text(0);
  ticket.application = query.text(1);
  ticket.kind = static_cast<MediaKind>(query.integer(2));
  ticket.media = query.text(3);
  ticket.stream = query.text(4);
  ticket.contentType = query.text(5);
  ticket.maxBytes = query.integer(6);
  ticket.expires = query.integer(7);
  return std::optional<UploadTicket>(std::move(ticket));
}

OptionalError MediaStore::deleteExpiredUploads(int64_t now) {
  std::lock_guard lock(mutex_);
  Statement query = prepare("DELETE FROM uploads WHERE expires < ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, now);
  if (query.step() != SQLITE_DONE) return sqliteError("cannot delete upload tickets");
  return std::nullopt;
}

Result<int64_t> MediaStore::insertEvent(const DebuggerEvent& event) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "INSERT INTO events (application, received, payload, valid_json) "
      "VALUES (?, ?, ?, ?)");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, event.application)
      .bind(2, event.received)
      .bind(3, event.payload)
      .bind(4, static_cast<int64_t>(event.validJson));
  if (query.step() != SQLITE_DONE) return sqliteError("cannot store an event");
  return static_cast<int64_t>(sqlite3_last_insert_rowid(db_));
}

Result<std::vector<DebuggerEvent>> MediaStore::listEvents(const std::string& application,
                                                          int64_t limit) {
  std::lock_guard lock(mutex_);
  Statement query = prepare(
      "SELECT id, application, received, payload, valid_json FROM events "
      "WHERE application = ? ORDER BY id DESC LIMIT ?");
  if (!query.valid()) return sqliteError("cannot prepare a statement");
  query.bind(1, application).bind(2, limit);
  std::vector<DebuggerEvent> list;
  int rc;
  while ((rc = query.step()) == SQLITE_ROW) {
    DebuggerEvent event;
    event.id = query.integer(0);
    event.application = query.text(1);
    event.received = query.integer(2);
    event.payload = query.text(3);
    event.validJson = query.integer(4) != 0;
    list.push_back(std::move(event));
  }
  if (rc != SQLITE_DONE) return sqliteError("cannot list events");
  return list;
}

}  // namespace nembra
