#include "recorder/recorder_state.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

using S = RecorderState;
using E = RecorderEvent;

TEST(RecorderStateMachineTest, WalksARecordingFromConfigurationToPreviewAndBack) {
  RecorderStateMachine machine;
  for (auto [event, state] :
       std::initializer_list<std::pair<E, S>>{{E::Configured, S::Idle},
                                              {E::CountdownStarted, S::Countdown},
                                              {E::WriterCreated, S::Recording},
                                              {E::PauseToggled, S::Paused},
                                              {E::PauseToggled, S::Recording},
                                              {E::FinishingStarted, S::Stopping},
                                              {E::WriterFinished, S::Finished},
                                              {E::PreviewShown, S::Previewing},
                                              {E::Retaken, S::Idle},
                                              {E::Closed, S::Closed}}) {
    EXPECT_TRUE(machine.transit(event)) << recorderEventName(event);
    EXPECT_EQ(machine.state(), state) << recorderEventName(event);
  }
}

TEST(RecorderStateMachineTest, RefusesMovesTheTableDoesNotHave) {
  struct Case {
    S from;
    E event;
  };
  for (const Case& c : std::initializer_list<Case>{
           {S::Failed, E::WriterCreated},  // pressing record only shows an alert
           {S::NotAuthorised, E::CountdownStarted},
           {S::Idle, E::PauseToggled},  // pause needs a recording
           {S::Idle, E::FinishingStarted},
           {S::Stopping, E::WriterCreated},  // no second recording while finishing
           {S::Recording, E::PreviewShown},
           {S::Streaming, E::WriterCreated},
           {S::Closed, E::Closed},
           {S::Closed, E::Configured}}) {
    S to;
    EXPECT_FALSE(RecorderStateMachine::next(c.from, c.event, to))
        << recorderStateName(c.from) << " + " << recorderEventName(c.event);
    EXPECT_EQ(to, c.from);
  }
}

TEST(RecorderStateMachineTest, EveryStateButClosedCanClose) {
  for (S from : {S::Configuring, S::Failed, S::NotAuthorised, S::Idle, S::Countdown, S::Recording,
                 S::Paused, S::Stopping, S::Finished, S::Previewing, S::Streaming}) {
    S to;
    EXPECT_TRUE(RecorderStateMachine::next(from, E::Closed, to)) << recorderStateName(from);
    EXPECT_EQ(to, S::Closed);
  }
}

}  // namespace
}  // namespace nembra
