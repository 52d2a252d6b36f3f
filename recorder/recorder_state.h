// The recording session's states and the only moves between them.
//
//   Configuring ──configured──▶ Idle ◀──────────────retaken─────────────── Previewing
//      │  │                     │ │ ▲                                          ▲
//      │  └─not authorised─▶ NotAuthorised                                   │
//      └─failed─▶ Failed      │ │ └─countdown cancelled── Countdown          │
//                             │ └─countdown started──────▶   │               │
//                             │                              │ writer created │
//                             └─────writer created──▶ Recording ◀─resumed─┐  │
//                                                     │    └─paused─▶ Paused │
//                                  finishing started  ▼                 │    │
//                                                  Stopping ◀───────────┘    │
//                                                     │ writer finished       │
//                                                     ▼                       │
//                                                  Finished ──preview shown───┘
//   Idle ──streamer created──▶ Streaming ──streamer failed──▶ Idle
//   any state ──closed──▶ Closed
//
// Threading: main queue only.
#pragma once

#include <string>

namespace nembra {

enum class RecorderState {
  Configuring,
  Failed,
  NotAuthorised,
  Idle,
  Countdown,
  Recording,
  Paused,
  Stopping,
  Finished,
  Previewing,
  Streaming,
  Closed,
};

enum class RecorderEvent {
  Configured,
  ConfigurationFailed,
  AuthorisationRefused,
  CountdownStarted,
  CountdownCancelled,
  WriterCreated,
  PauseToggled,
  FinishingStarted,
  WriterFinished,
  PreviewShown,
  Retaken,
  StreamerCreated,
  StreamerFailed,
  Closed,
};

const char* recorderStateName(RecorderState state);
const char* recorderEventName(RecorderEvent event);

class RecorderStateMachine {
 public:
  RecorderState state() const { return state_; }
  // Moves on |event| when the table allows it from the present state; false (and no move)
  // otherwise.
  [[nodiscard]] bool transit(RecorderEvent event);
  // Where |event| leads from |from|, or |from| itself when it is not allowed there.
  static bool next(RecorderState from, RecorderEvent event, RecorderState& to);

 private:
  RecorderState state_ = RecorderState::Configuring;
};

}  // namespace nembra
