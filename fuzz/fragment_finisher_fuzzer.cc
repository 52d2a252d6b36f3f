// Finishes arbitrary bytes as a recording's part file, as recovery does after a crash: the box
// walk and the table builder see any cut and any corruption. The part file is finished in place,
// so the result can only shrink, and it is renamed only when finishing succeeds.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/ffmpeg/ffmpeg_fragment_finisher.h"

namespace {

// A directory of this process's own, in memory when the system has one.
const std::string& workDirectory() {
  static const std::string directory = [] {
    std::string pattern = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    pattern += "/fragment-finisher-fuzzer.XXXXXX";
    if (!mkdtemp(pattern.data())) std::abort();
    return pattern;
  }();
  return directory;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string partPath = workDirectory() + "/movie.mp4.part";
  const std::string path = workDirectory() + "/movie.mp4";
  const int fd = ::open(partPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || ::write(fd, data, size) != static_cast<ssize_t>(size)) std::abort();
  ::close(fd);

  std::string why;
  const nembra::InPlaceFinish result = nembra::finishFragmentsInPlace(partPath, path, why);
  struct stat info {};
  if (result == nembra::InPlaceFinish::Done) {
    if (::stat(partPath.c_str(), &info) == 0 || ::stat(path.c_str(), &info) != 0 ||
        static_cast<size_t>(info.st_size) > size) {
      std::abort();
    }
    std::remove(path.c_str());
  } else {
    if (why.empty() || ::stat(path.c_str(), &info) == 0) std::abort();
    // Nothing but a failed write may touch the part file.
    if (result != nembra::InPlaceFinish::Failed &&
        (::stat(partPath.c_str(), &info) != 0 || static_cast<size_t>(info.st_size) != size)) {
      std::abort();
    }
    std::remove(partPath.c_str());
  }
  return 0;
}
