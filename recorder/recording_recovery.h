// Finds the recordings a killed process left half written (their fragmented part files, with no
// live recorder holding their lock) and finishes them as ordinary MP4 files.
//
// Threading: any thread; the recorder calls it on its session queue when it starts.
#pragma once

#include <string>
#include <vector>

#include "nembra/error.h"

namespace nembra {

class RecordingRecovery {
 public:
  // The lock a recorder holds on |path| while writing it.
  static std::string lockPath(const std::string& path);
  // The final paths ("<dir>/<name>.mp4") whose part file is in |directory| and whose lock is
  // free, oldest first.
  static std::vector<std::string> findInterrupted(const std::string& directory);
  // Writes the MP4 at |path| from its part file and removes the part file and the lock.
  static OptionalError finish(const std::string& path);
};

}  // namespace nembra
