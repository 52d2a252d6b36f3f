#include "recorder/recorder_state.h"

#include <iterator>

namespace nembra {

namespace {

struct Transition {
  RecorderState from;
  RecorderEvent event;
  RecorderState to;
};

using S = RecorderState;
using E = RecorderEvent;

constexpr Transition kTransitions[] = {
    {S::Configuring, E::Configured, S::Idle},
    {S::Configuring, E::ConfigurationFailed, S::Failed},
    {S::Configuring, E::AuthorisationRefused, S::NotAuthorised},
    {S::Idle, E::CountdownStarted, S::Countdown},
    {S::Countdown, E::CountdownStarted, S::Countdown},  // a second press restarts it
    {S::Countdown, E::CountdownCancelled, S::Idle},
    {S::Idle, E::WriterCreated, S::Recording},
    {S::Countdown, E::WriterCreated, S::Recording},
    {S::Recording, E::PauseToggled, S::Paused},
    {S::Paused, E::PauseToggled, S::Recording},
    {S::Recording, E::FinishingStarted, S::Stopping},
    {S::Paused, E::FinishingStarted, S::Stopping},
    {S::Stopping, E::WriterFinished, S::Finished},
    {S::Finished, E::PreviewShown, S::Previewing},
    {S::Finished, E::Retaken, S::Idle},
    {S::Previewing, E::Retaken, S::Idle},
    {S::Idle, E::StreamerCreated, S::Streaming},
    {S::Countdown, E::StreamerCreated, S::Streaming},
    {S::Streaming, E::StreamerFailed, S::Idle},
    {S::Idle, E::StreamerFailed, S::Idle},  // the live video could not be created
};

}  // namespace

const char* recorderStateName(RecorderState state) {
  switch (state) {
    case S::Configuring:
      return "Configuring";
    case S::Failed:
      return "Failed";
    case S::NotAuthorised:
      return "NotAuthorised";
    case S::Idle:
      return "Idle";
    case S::Countdown:
      return "Countdown";
    case S::Recording:
      return "Recording";
    case S::Paused:
      return "Paused";
    case S::Stopping:
      return "Stopping";
    case S::Finished:
      return "Finished";
    case S::Previewing:
      return "Previewing";
    case S::Streaming:
      return "Streaming";
    case S::Closed:
      return "Closed";
  }
  return "?";
}

const char* recorderEventName(RecorderEvent event) {
  switch (event) {
    case E::Configured:
      return "Configured";
    case E::ConfigurationFailed:
      return "ConfigurationFailed";
    case E::AuthorisationRefused:
      return "AuthorisationRefused";
    case E::CountdownStarted:
      return "CountdownStarted";
    case E::CountdownCancelled:
      return "CountdownCancelled";
    case E::WriterCreated:
      return "WriterCreated";
    case E::PauseToggled:
      return "PauseToggled";
    case E::FinishingStarted:
      return "FinishingStarted";
    case E::WriterFinished:
      return "WriterFinished";
    case E::PreviewShown:
      return "PreviewShown";
    case E::Retaken:
      return "Retaken";
    case E::StreamerCreated:
      return "StreamerCreated";
    case E::StreamerFailed:
      return "StreamerFailed";
    case E::Closed:
      return "Closed";
  }
  return "?";
}

bool RecorderStateMachine::next(RecorderState from, RecorderEvent event, RecorderState& to) {
  to = from;
  if (event == E::Closed) {
    if (from == S::Closed) return false;
    to = S::Closed;
    return true;
  }
  for (const Transition& t : kTransitions) {
    if (t.from == from && t.event == event) {
      to = t.to;
      return true;
    }
  }
  return false;
}

bool RecorderStateMachine::transit(RecorderEvent event) {
  RecorderState to;
  if (!next(state_, event, to)) return false;
  state_ = to;
  return true;
}

}  // namespace nembra
