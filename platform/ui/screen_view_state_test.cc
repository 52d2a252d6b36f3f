#include "platform/ui/screen_view_state.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace nembra {
namespace {

class RecordingListener final : public ScreenViewListener {
 public:
  void buttonPressed(const std::string& name) override { events.push_back("button " + name); }
  void sliderMoved(const std::string& name, double value) override {
    events.push_back("slider " + name + " " + std::to_string(static_cast<int>(value)));
  }
  void rowPicked(const std::string& list, int row) override {
    events.push_back("row " + list + " " + std::to_string(row));
  }
  std::vector<std::string> events;
};

class ScreenViewStateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    state.setListener(&listener);
    state.setButton("play", {"play-white", "Play", true, false});
    state.setButton("stop", {"stop-white", "Stop", false, false});
    state.setButton("record", {"record-white", "Record", true, true});
    state.setSlider("seek", {5, 0, 60, true, false});
    state.setSlider("volume", {1, 0, 1, false, false});
    state.setList("files", {44, {"a", "b"}, -1});
    state.bindKey("space", "play");
    state.bindKey("s", "stop");
  }

  ScreenViewState state;
  RecordingListener listener;
};

// Every action a person could not take does nothing and reaches no one.
TEST_F(ScreenViewStateTest, RefusesWhatAPersonCouldNotDo) {
  struct Case {
    const char* what;
    bool (*act)(ScreenViewState&);
  };
  const Case cases[] = {
      {"unknown button", [](ScreenViewState& s) { return s.pressButton("eject"); }},
      {"disabled button", [](ScreenViewState& s) { return s.pressButton("stop"); }},
      {"hidden button", [](ScreenViewState& s) { return s.pressButton("record"); }},
      {"disabled slider", [](ScreenViewState& s) { return s.moveSlider("volume", 0.5); }},
      {"unknown slider", [](ScreenViewState& s) { return s.moveSlider("zoom", 2); }},
      {"row past the end", [](ScreenViewState& s) { return s.pickRow("files", 2); }},
      {"negative row", [](ScreenViewState& s) { return s.pickRow("files", -1); }},
      {"unbound key", [](ScreenViewState& s) { return s.pressBoundKey("x"); }},
  };
  for (const Case& c : cases) {
    EXPECT_FALSE(c.act(state)) << c.what;
  }
  EXPECT_TRUE(listener.events.empty());
  // A bound key is claimed even when its button is off, so it never reaches the screen as text.
  EXPECT_TRUE(state.pressBoundKey("s"));
  EXPECT_TRUE(listener.events.empty());
}

TEST_F(ScreenViewStateTest, AnAlertCoversEveryControlUntilAnswered) {
  int answered = -1;
  state.showAlert({"Delete?", "", {"Cancel", "Delete"}}, [&](int b) { answered = b; });
  EXPECT_FALSE(state.pressButton("play"));
  EXPECT_FALSE(state.pressBoundKey("space"));
  EXPECT_FALSE(state.moveSlider("seek", 10));
  EXPECT_FALSE(state.pickRow("files", 0));
  EXPECT_EQ(state.takeAlertAnswer(2), nullptr);
  EXPECT_TRUE(state.alert().has_value());

  auto answer = state.takeAlertAnswer(1);
  ASSERT_NE(answer, nullptr);
  EXPECT_FALSE(state.alert().has_value());
  answer(1);
  EXPECT_EQ(answered, 1);
  EXPECT_EQ(state.takeAlertAnswer(1), nullptr);

  EXPECT_TRUE(state.pressBoundKey("space"));
  EXPECT_TRUE(state.moveSlider("seek", 99));
  EXPECT_TRUE(state.pickRow("files", 1));
  EXPECT_EQ(listener.events,
            (std::vector<std::string>{"button play", "slider seek 60", "row files 1"}));
  EXPECT_EQ(state.slider("seek")->value, 60);
}

TEST_F(ScreenViewStateTest, KeepsFirstSetOrderAndReportsOnlyRealChanges) {
  EXPECT_TRUE(state.setLabel("time", "00:01"));
  EXPECT_TRUE(state.setLabel("status", "Loading"));
  EXPECT_FALSE(state.setLabel("time", "00:01"));
  EXPECT_TRUE(state.setLabel("time", "00:02"));
  ASSERT_EQ(state.labels().size(), 2u);
  EXPECT_EQ(state.labels()[0], (std::pair<std::string, std::string>{"time", "00:02"}));
  EXPECT_EQ(state.label("status"), "Loading");
  EXPECT_EQ(state.label("never"), "");

  state.setButton("play", {"pause-white", "Pause", true, false});
  EXPECT_EQ(state.buttons()[0].first, "play");
  EXPECT_EQ(state.buttons()[0].second.title, "Pause");

  EXPECT_FALSE(state.bindKey("space", "play"));
  EXPECT_TRUE(state.bindKey("p", "play"));
  EXPECT_EQ(state.keysOf("play"), "p/space");
  EXPECT_EQ(state.keysOf("record"), "");
  EXPECT_FALSE(state.dismissAlert());
}

}  // namespace
}  // namespace nembra
