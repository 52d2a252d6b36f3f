#include "nembra/player_config.h"

#include <gtest/gtest.h>

#include "nembra/file_selector_config.h"
#include "nembra/media_type.h"

namespace nembra {
namespace {

TEST(PlayerConfigTest, DescriptionsKeepTheirFieldsAndBlanks) {
  PlayerConfig config;
  EXPECT_EQ(config.toString(),
            "PlayerConfig{                        extraArgs={\n},                         "
            "shouldShowSubtitles=0,                         isMuted=0,                         "
            "isCachingEnabled=1,                         shouldPreload=1,                         "
            "adsUri=}");
  EXPECT_EQ(config.stringValueConfig(),
            "{                        \"shouldShowSubtitles\": 0,                         "
            "\"isMuted\": 0}");

  config.setShouldShowSubtitles(true);
  config.setIsMuted(true);
  config.setIsCachingEnabled(false);
  config.setShouldPreload(false);
  config.setAdsUri("https://ads.example/tag?x=1");
  config.setExtraArgs({{"token", "v1"}, {"list", {1, "a b"}}});
  EXPECT_EQ(
      config.toString(),
      "PlayerConfig{                        extraArgs={\n    list = (\n        1,\n        \"a "
      "b\"\n    );\n    token = v1;\n},                         shouldShowSubtitles=1,             "
      "            isMuted=1,                         isCachingEnabled=0,                         "
      "shouldPreload=0,                         adsUri=https://ads.example/tag?x=1}");
  // Only the subtitles and muted flags are reported here.
  EXPECT_EQ(config.stringValueConfig(),
            "{                        \"shouldShowSubtitles\": 1,                         "
            "\"isMuted\": 1}");
}

TEST(PlayerConfigTest, ExtraArgsMergeWithNewValuesWinning) {
  PlayerConfig config;
  config.setExtraArgs({{"a", "1"}, {"b", "2"}});
  config.addExtraArgs({{"b", "3"}, {"c", "4"}});
  EXPECT_EQ(config.extraArgs(), (Json{{"a", "1"}, {"b", "3"}, {"c", "4"}}));
  config.setExtraArgs("not an object");
  EXPECT_EQ(config.getExtraArgs(), Json::object());
}

TEST(FileSelectorConfigTest, DescriptionLeavesOutTheMinimumDuration) {
  FileSelectorConfig config;
  EXPECT_EQ(config.stringValueConfig(),
            "{                        \"maxDuration\": 0,                         \"mediaType\": "
            "7,                         \"shouldAllowMultipleSelection\": 1}");

  config.setMinDuration(5);
  config.setMaxDuration(int64_t{3} << 32);  // printed whole, not through 32 bits
  config.setMediaType(VIDEO | IMAGE);
  config.setShouldAllowMultipleSelection(false);
  EXPECT_EQ(config.stringValueConfig(),
            "{                        \"maxDuration\": 12884901888,                         "
            "\"mediaType\": 5,                         \"shouldAllowMultipleSelection\": 0}");

  config.setExtraArgs({{"k", "old"}});
  config.addExtraArgs({{"k", "new"}});
  EXPECT_EQ(config.extraArgs(), (Json{{"k", "new"}}));
}

}  // namespace
}  // namespace nembra
