// `nembra serve` for a benchmark: a free HTTP port, no RTMP port in use, a fresh data directory;
// the process and the directory go with the object.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "platform/system/child_process.h"

namespace nembra::testing {

class LocalService {
 public:
  LocalService() = default;
  LocalService(const LocalService&) = delete;
  LocalService& operator=(const LocalService&) = delete;
  ~LocalService();

  // The `nembra` tool built beside the running benchmark.
  static std::string defaultTool();

  // Starts |nembra| and waits until it listens; false, said on stderr as |who|, when it cannot.
  bool start(const std::string& nembra, const std::string& who);

  // Uploads |file| with the `nembra` tool |nembra| as application |appToken|; the new media's
  // token, empty when the upload failed.
  std::string upload(const std::string& nembra, const std::string& appToken,
                     const std::string& file) const;

  // "http://127.0.0.1:PORT", once started.
  const std::string& url() const { return url_; }
  pid_t pid() const { return process_ ? process_->pid() : 0; }

 private:
  std::string dir_;
  std::string url_;
  std::unique_ptr<ChildProcess> process_;
};

}  // namespace nembra::testing
