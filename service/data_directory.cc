#include "service/data_directory.h"

#include <filesystem>
#include <system_error>

#include "service/token_rules.h"

namespace nembra {

namespace fs = std::filesystem;

DataDirectory::DataDirectory(std::string root) : root_(std::move(root)) {}

OptionalError DataDirectory::prepare() const {
  std::error_code ec;
  for (const std::string& dir : {root_, root_ + "/media", temporaryDirectory(), rtmpDirectory()}) {
    fs::create_directories(dir, ec);
    if (ec) return Error::file("cannot create " + dir + ": " + ec.message(), ec.value());
  }
  // Anything left here is an upload that never finished.
  fs::directory_iterator it(temporaryDirectory(), ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    std::error_code ignored;
    fs::remove_all(it->path(), ignored);
  }
  if (ec) return Error::file("cannot list " + temporaryDirectory() + ": " + ec.message());
  return std::nullopt;
}

namespace {

// Callers check their tokens first; this is the last line: a name no token can have, so that a
// token with "../" or a slash that slipped through names nothing outside its directory.
std::string pathPiece(const std::string& token) { return isSafeToken(token) ? token : "%refused"; }

}  // namespace

std::string DataDirectory::mediaDirectory(const std::string& application, MediaKind kind,
                                          const std::string& media) const {
  return root_ + "/media/" + pathPiece(application) + "/" + mediaKindCollection(kind) + "/" +
         pathPiece(media);
}

std::string DataDirectory::streamDirectory(const std::string& application, MediaKind kind,
                                           const std::string& media,
                                           const std::string& stream) const {
  return mediaDirectory(application, kind, media) + "/" + pathPiece(stream);
}

std::string DataDirectory::streamFile(const std::string& application, MediaKind kind,
                                      const std::string& media, const std::string& stream) const {
  return streamDirectory(application, kind, media, stream) + "/" + mediaFileName(kind);
}

std::string DataDirectory::coverFile(const std::string& application, MediaKind kind,
                                     const std::string& media, const std::string& stream) const {
  return streamDirectory(application, kind, media, stream) + "/cover.jpg";
}

std::string DataDirectory::newTemporaryPath(const std::string& suffix) const {
  return temporaryDirectory() + "/" + randomHex(12) + suffix;
}

}  // namespace nembra
