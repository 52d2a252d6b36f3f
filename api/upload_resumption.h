// Restarts the uploads a killed process left in the journal: each record no one is working on
// is claimed and handed to the uploader, which takes the step plan() gives for it.
//
// Threading: call from the main queue.
#pragma once

#include <chrono>
#include <cstddef>

#include "api/upload_journal.h"

namespace nembra {

class Nembra;
class MediaUploader;

class UploadResumption {
 public:
  enum class Step {
    Confirm,      // the file reached storage: only the confirm is sent again
    Transfer,     // the storage form is still valid: the file is posted again whole
    AskForUrl,    // no form yet, or one about to expire: a new upload URL is asked for
    FileMissing,  // nothing to send any more
  };
  // A journaled storage form this close to its expiry is not tried again.
  static constexpr std::chrono::seconds kFormExpiryMargin{60};

  // A presigned form cannot resume mid-body, so a transfer always starts over.
  static Step plan(const UploadJournalEntry& record, std::chrono::sys_seconds now, bool fileExists);

  // Both must outlive this object.
  UploadResumption(Nembra& application, MediaUploader& uploader);

  // Hands every journaled upload no one is working on to the uploader; they report through the
  // delegate only. Returns how many.
  size_t resumeUnfinishedUploads();

 private:
  Nembra& application_;
  MediaUploader& uploader_;
};

}  // namespace nembra
