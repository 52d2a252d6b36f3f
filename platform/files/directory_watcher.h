// Tells when files appear in a directory or finish being written there (inotify: a file closed
// after writing, or moved in). Only the directory itself is watched, not its subdirectories.
//
// Threading: onChange runs on the watcher's thread, "com.nembra.directoryWatcher", with the name
// of the file concerned. Destroying the watcher stops it and waits for a running onChange.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "nembra/error.h"

namespace nembra {

class DirectoryWatcher {
 public:
  using OnChange = std::function<void(const std::string& fileName)>;

  // Null, with |error|, when |directory| cannot be watched (missing, no inotify left).
  static std::unique_ptr<DirectoryWatcher> start(const std::string& directory, OnChange onChange,
                                                 OptionalError& error);
  ~DirectoryWatcher();

  DirectoryWatcher(const DirectoryWatcher&) = delete;
  DirectoryWatcher& operator=(const DirectoryWatcher&) = delete;

  const std::string& directory() const { return directory_; }

 private:
  DirectoryWatcher(std::string directory, OnChange onChange, int inotify, int wake);
  void run();

  const std::string directory_;
  const OnChange onChange_;
  const int inotify_;
  const int wake_;  // an eventfd that ends run()
  std::thread thread_;
};

}  // namespace nembra
