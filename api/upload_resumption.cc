#include "api/upload_resumption.h"

#include <algorithm>

#include "api/media_uploader.h"
#include "api/upload_url_reply.h"
#include "nembra/application.h"

namespace nembra {

UploadResumption::Step UploadResumption::plan(const UploadJournalEntry& record,
                                              std::chrono::sys_seconds now, bool fileExists) {
  if (record.stage == UploadJournalEntry::Stage::Transferred) return Step::Confirm;
  if (!fileExists) return Step::FileMissing;
  if (record.stage != UploadJournalEntry::Stage::Transferring) return Step::AskForUrl;
  auto expires = UploadUrlReply::formExpiration(record.fields);
  if (expires && *expires <= now + kFormExpiryMargin) return Step::AskForUrl;
  return Step::Transfer;
}

UploadResumption::UploadResumption(Nembra& application, MediaUploader& uploader)
    : application_(application), uploader_(uploader) {}

size_t UploadResumption::resumeUnfinishedUploads() {
  if (application_.uploadingConfig().shouldTurnOffUploader()) return 0;
  UploadJournal& journal = uploader_.journal();
  std::vector<std::string> problems;
  std::vector<UploadJournalEntry> records = journal.load(&problems);
  for (const std::string& problem : problems) application_.log("upload journal: " + problem);
  size_t restarted = 0;
  for (UploadJournalEntry& record : records) {
    auto claim = journal.claim(record.id);
    // Another process, or a flow of this one, is on it.
    if (!claim) continue;
    // Finished by its owner between the listing and the claim.
    auto current = journal.load();
    bool present = std::any_of(current.begin(), current.end(),
                               [&](const UploadJournalEntry& e) { return e.id == record.id; });
    if (!present) {
      claim->removeFileOnRelease();
      continue;
    }
    ++restarted;
    uploader_.adopt(std::move(record), std::move(claim));
  }
  return restarted;
}

}  // namespace nembra
