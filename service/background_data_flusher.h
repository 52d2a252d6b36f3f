// Makes a file's written data durable while more is still being written. A thread of its own
// ("nembra-flush") calls fdatasync whenever the writer reports new data since the last call,
// so the disk (and, on a virtual machine, the host's cache behind it) takes the data as it
// arrives instead of all at once when the finished file is synced: on a virtual disk that last
// flush alone can cost as much as writing the file.
//
// Threading: progress() and stop() on the writer's thread; the flushing on the flusher's own.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace nembra {

class BackgroundDataFlusher {
 public:
  // Starts the thread. |fd| must stay open until stop() has returned.
  explicit BackgroundDataFlusher(int fd);
  // stop(), its result dropped.
  ~BackgroundDataFlusher();
  BackgroundDataFlusher(const BackgroundDataFlusher&) = delete;
  BackgroundDataFlusher& operator=(const BackgroundDataFlusher&) = delete;

  // New data was handed to the disk: flush again once the flush under way (if any) is done.
  void progress();
  // Ends the thread once the flush asked for by the last progress() is done. Returns the errno
  // of the first flush that failed, 0 when none did. Later calls return the same.
  int stop();

 private:
  void run();

  const int fd_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool pending_ = false;   // guarded by mutex_
  bool stopping_ = false;  // guarded by mutex_
  int error_ = 0;          // guarded by mutex_
  std::thread thread_;
};

}  // namespace nembra
