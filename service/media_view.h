// A media with all its streams, as replies show it: which stream is the original (the first) and
// which the default (the newest that holds a file, else the newest).
#pragma once

#include <string>
#include <vector>

#include "service/media_records.h"

namespace nembra {

struct MediaView {
  MediaRecord media;
  std::vector<StreamRecord> streams;  // oldest first

  const StreamRecord* originalStream() const;
  const StreamRecord* defaultStream() const;
  const StreamRecord* stream(const std::string& token) const;
};

}  // namespace nembra
