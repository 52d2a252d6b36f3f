#include "api/config_line.h"

#include <gtest/gtest.h>

namespace nembra {
namespace {

TEST(ConfigLineTest, LinesJoinEntriesWithTheGivenBlanks) {
  EXPECT_EQ(configJsonLine({}), "{}");
  EXPECT_EQ(configJsonLine({{"a", "1"}, {"b", "x"}}, {.first = 1, .between = 2}),
            "{ \"a\": 1,  \"b\": x}");
  EXPECT_EQ(configFieldLine("Name", {{"a", "1"}, {"b", ""}}, {.first = 0, .between = 1}),
            "Name{a=1, b=}");
}

TEST(ConfigLineTest, DictionariesPrintInPropertyListForm) {
  const std::pair<Json, std::string> cases[] = {
      {Json::object(), "{\n}"},
      {Json::array(), "(\n)"},
      // Keys sorted whatever order they were added in.
      {Json{{"b", 2}, {"a", 1.5}}, "{\n    a = 1.5;\n    b = 2;\n}"},
      // Quoted once they hold more than letters, digits, "_", "." and "$".
      {Json{{"server_auth", "v1.x$"}, {"two words", "a-b"}, {"e", ""}},
       "{\n    e = \"\";\n    server_auth = v1.x$;\n    \"two words\" = \"a-b\";\n}"},
      {Json{{"q", "say \"hi\"\\\n"}}, "{\n    q = \"say \\\"hi\\\"\\\\\\n\";\n}"},
      {Json{{"flag", true}, {"none", nullptr}}, "{\n    flag = 1;\n    none = <null>;\n}"},
      {Json{{"n", {{"m", Json::array({1, "x y"})}}}},
       "{\n    n = {\n        m = (\n            1,\n            \"x y\"\n        );\n"
       "    };\n}"},
  };
  for (const auto& [value, text] : cases) {
    SCOPED_TRACE(value.dump());
    EXPECT_EQ(dictionaryDescription(value), text);
  }
}

}  // namespace
}  // namespace nembra
