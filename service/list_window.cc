#include "service/list_window.h"

#include <charconv>
#include <string>

namespace nembra {
namespace {

bool readWhole(const std::string& text, int64_t& value) {
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return !text.empty() && ec == std::errc() && end == text.data() + text.size();
}

}  // namespace

Result<ListWindow> ListWindow::from(const FormParams& params) {
  ListWindow window;
  if (auto limit = params.get("limit")) {
    if (!readWhole(*limit, window.limit) || window.limit < 1 || window.limit > kMaxLimit) {
      return Error::invalidArgument("\"limit\" must be a whole number from 1 to " +
                                    std::to_string(kMaxLimit));
    }
  }
  if (auto offset = params.get("offset")) {
    if (!readWhole(*offset, window.offset) || window.offset < 0) {
      return Error::invalidArgument("\"offset\" must be a whole number, 0 or more");
    }
  }
  return window;
}

}  // namespace nembra
