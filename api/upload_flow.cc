#include "api/upload_flow.h"

namespace nembra {

namespace {

struct Transition {
  UploadStage from;
  UploadEvent event;
  UploadStage to;
};

constexpr Transition kTransitions[] = {
    {UploadStage::Idle, UploadEvent::Start, UploadStage::RequestingUrl},
    {UploadStage::Idle, UploadEvent::ResumeTransfer, UploadStage::Transferring},
    {UploadStage::Idle, UploadEvent::ResumeConfirm, UploadStage::Confirming},
    {UploadStage::Idle, UploadEvent::Cancel, UploadStage::Cancelled},
    {UploadStage::RequestingUrl, UploadEvent::UrlReceived, UploadStage::Transferring},
    {UploadStage::RequestingUrl, UploadEvent::Fail, UploadStage::Failed},
    {UploadStage::RequestingUrl, UploadEvent::Cancel, UploadStage::Cancelled},
    {UploadStage::Transferring, UploadEvent::BodySent, UploadStage::Confirming},
    {UploadStage::Transferring, UploadEvent::FormRefused, UploadStage::RequestingUrl},
    {UploadStage::Transferring, UploadEvent::Fail, UploadStage::Failed},
    {UploadStage::Transferring, UploadEvent::Cancel, UploadStage::Cancelled},
    {UploadStage::Confirming, UploadEvent::Confirmed, UploadStage::Done},
};

}  // namespace

std::optional<UploadStage> UploadFlow::next(UploadStage from, UploadEvent event) {
  for (const Transition& transition : kTransitions) {
    if (transition.from == from && transition.event == event) return transition.to;
  }
  return std::nullopt;
}

bool UploadFlow::transit(UploadEvent event) {
  auto to = next(stage_, event);
  if (!to) return false;
  stage_ = *to;
  return true;
}

const char* UploadFlow::name(UploadStage stage) {
  switch (stage) {
    case UploadStage::Idle:
      return "idle";
    case UploadStage::RequestingUrl:
      return "requesting-url";
    case UploadStage::Transferring:
      return "transferring";
    case UploadStage::Confirming:
      return "confirming";
    case UploadStage::Done:
      return "done";
    case UploadStage::Failed:
      return "failed";
    case UploadStage::Cancelled:
      return "cancelled";
  }
  return "";
}

}  // namespace nembra
