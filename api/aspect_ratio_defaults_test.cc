#include "api/aspect_ratio_defaults.h"

#include <gtest/gtest.h>

#include "nembra/application.h"

namespace nembra {
namespace {

TEST(AspectRatioDefaultsTest, TheApplicationObjectSetsThemWhenMade) {
  MainQueue main;
  Nembra nembra(main);
  struct Expected {
    std::optional<AspectRatio> value;
    const char* text;
  };
  for (const auto& [value, text] : {Expected{AspectRatioDefaults::defaultRatio(), "16 : 9"},
                                    Expected{AspectRatioDefaults::fallbackRatio(), "4 : 3"},
                                    Expected{AspectRatioDefaults::ratio16x9(), "16 : 9"},
                                    Expected{AspectRatioDefaults::ratio4x3(), "4 : 3"},
                                    Expected{AspectRatioDefaults::ratio1x1(), "1 : 1"}}) {
    ASSERT_TRUE(value) << text;
    EXPECT_EQ(value->toString(), text);
  }
}

}  // namespace
}  // namespace nembra
