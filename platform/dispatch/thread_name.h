// Names the calling thread so debuggers, top and sanitizer reports show what it is.
#pragma once

#include <string>

namespace nembra {

// Linux keeps at most 15 characters; longer names keep their last 15 (the distinctive end of
// reverse-DNS names such as "com.gcd.nembraUploadQueue").
void setCurrentThreadName(const std::string& name);

}  // namespace nembra
