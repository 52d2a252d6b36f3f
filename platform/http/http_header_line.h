// One line of a response head as libcurl hands it over while the head streams in: a status line
// starts the head anew (an interim 1xx or a redirect came before), a "Name: value" line adds a
// header, anything else is ignored.
//
// Threading: pure; any thread.
#pragma once

#include <string_view>

#include "nembra/http_message.h"

namespace nembra {

class HttpHeaderLine {
 public:
  // |line| with or without its CR LF. The value loses the blanks before it, the name nothing.
  static void apply(std::string_view line, HttpHeaders& headers);
};

}  // namespace nembra
