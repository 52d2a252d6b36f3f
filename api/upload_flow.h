// The stages of one upload and the moves between them. The handler moves a flow only through
// transit(), which refuses any move the table below does not list, so a late or repeated event
// (a completion after a cancel, a second reply) cannot drive a flow backwards.
//
//            Start                   UrlReceived                BodySent
//   Idle ─────────────► RequestingUrl ───────────► Transferring ─────────► Confirming
//    │ │                   ▲   │ Fail/Cancel          │  │ Fail/Cancel         │ Confirmed
//    │ │   ResumeTransfer  │   ▼                      │  ▼                     ▼
//    │ └───────────────────┼─► (Transferring)         │ Failed / Cancelled    Done
//    │     FormRefused     └──────────────────────────┘
//    │ ResumeConfirm ───────────────────────────────────────────────► Confirming
//    └ Cancel ► Cancelled
//
// FormRefused sends a flow restarted from the journal back for a new upload URL when storage
// turns down the form it had kept (an expired policy).
//
// Threading: a plain value; the handler keeps it on the main queue.
#pragma once

#include <optional>

namespace nembra {

enum class UploadStage { Idle, RequestingUrl, Transferring, Confirming, Done, Failed, Cancelled };

enum class UploadEvent {
  Start,           // ask for an upload URL
  ResumeTransfer,  // a journaled flow whose storage form is still valid
  ResumeConfirm,   // a journaled flow whose file reached storage but was never confirmed
  UrlReceived,
  FormRefused,
  BodySent,
  Confirmed,  // the confirm request answered, with or without an error
  Fail,
  Cancel,
};

class UploadFlow {
 public:
  UploadStage stage() const { return stage_; }
  // Moves to the stage the table gives for |event|; false, staying put, when it gives none.
  [[nodiscard]] bool transit(UploadEvent event);
  bool finished() const {
    return stage_ == UploadStage::Done || stage_ == UploadStage::Failed ||
           stage_ == UploadStage::Cancelled;
  }

  static std::optional<UploadStage> next(UploadStage from, UploadEvent event);
  static const char* name(UploadStage stage);

 private:
  UploadStage stage_ = UploadStage::Idle;
};

}  // namespace nembra
