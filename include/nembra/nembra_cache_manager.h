// Where downloaded and recorded media files live on this machine, what they are called, and
// keeping each type's cache directory under CacheConfig's size limit by deleting the oldest
// files.
//
// Threading: any thread. The limits and root are read from the application's CacheConfig at
// each call, so replace that configuration on the main queue only. Log lines go through the
// application's log().
#pragma once

#include <cstdint>
#include <string>

namespace nembra {

class FileSystem;
class Nembra;

class NembraCacheManager {
 public:
  // |isPlayer| tells the players' manager from the recordings' one; it changes nothing here.
  NembraCacheManager(Nembra& application, bool isPlayer);
  // With the file system given (the SDK's tests); the one above uses the shared one.
  NembraCacheManager(Nembra& application, bool isPlayer, FileSystem& fs);

  bool isPlayer() const { return isPlayer_; }

  // The directory of the type's files ("video", "audio", "image"), or "" for another type.
  std::string getCacheDirectoryWithType(int type);
  // The cache directory for the directory name |name|:
  //  - CacheConfig's root present and not ending in "/": that root under the documents directory
  //    (the default root "" is the documents directory itself), the same for every type and not
  //    created here;
  //  - a root ending in "/": used as it stands;
  //  - no root: "<name>-cache" in the documents directory, created when missing.
  std::string getCacheDirectory(const std::string& name);
  // "<token>.mp4", "<token>.aac", "<token>.jpg"; "" for another type or a token that is not
  // safe to use as a file name (see MediaToken).
  std::string getCacheFileNameWithType(int type, const std::string& token);
  // The directory joined with the file name; "" when either is "".
  std::string getCacheFilePathWithType(int type, const std::string& token);

  // Trims the type's directory for the type's extension; nothing for another type.
  void trimCacheWithType(int type);
  // Keeps the newest files ending in ".<extension>" in |directory| whose sizes add up to no more
  // than CacheConfig's limit, and deletes the rest: the file whose size crosses the limit goes
  // with every older one. Files of other extensions are neither counted nor deleted. A file whose
  // creation date cannot be read counts as created at the epoch, an unreadable size as 0. A
  // directory that cannot be listed is left alone; directories in it are not cache files.
  void trimCache(const std::string& extension, const std::string& directory);

  bool fileExists(const std::string& path);
  // Removes the file at |path|, ignoring failures. Directories are never removed here: callers
  // hand in media files, and a path that names a directory is a mistake to refuse, not a tree
  // to delete.
  void removeFile(const std::string& path);

 private:
  Nembra& application_;
  const bool isPlayer_;
  FileSystem& fs_;
};

}  // namespace nembra
