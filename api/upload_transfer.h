// One upload as the uploader follows it: what the caller handed in, where its flow stands, its
// journal record and the transfer task.
//
// Threading: kept on the main queue, except the progress counters, which the connection's
// callback queue writes.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "api/upload_file_stamp.h"
#include "api/upload_flow.h"
#include "api/upload_journal.h"
#include "nembra/media_callbacks.h"
#include "platform/dispatch/timer.h"
#include "platform/files/file_lock.h"

namespace nembra {

struct UploadTransfer {
  int type = 0;
  std::string path;
  Json data;
  MediaCallbacks::JsonCallback callback;
  MediaCallbacks::ProgressCallback progress;
  MediaCallbacks::JsonCallback confirmCallback;

  UploadFlow flow;
  UploadJournalEntry record;
  std::unique_ptr<FileLock> claim;
  MediaCallbacks::TaskHandle task;
  UploadFileStamp stamp;     // taken as the transfer starts
  bool resumed = false;      // restarted from the journal
  bool formRefused = false;  // a journaled form was turned down once already
  bool held = false;         // waiting for Wi-Fi before its transfer starts
  bool cancelRequested = false;
  bool fileChanged = false;            // the file differed after its transfer from before it
  int reloads = 0;                     // how many times action 552 started it again
  std::unique_ptr<Timer> reloadTimer;  // set while a reload waits for its turn

  // Progress is coalesced: the network reports far more often than anyone needs to hear.
  std::atomic<bool> progressPosted{false};
  std::atomic<int64_t> sent{0};
  std::atomic<int64_t> expected{0};
};

}  // namespace nembra
