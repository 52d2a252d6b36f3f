#include "nembra/media_type.h"

namespace nembra {

const char* mediaTypeName(int type) {
  switch (type) {
    case VIDEO:
      return "video";
    case AUDIO:
      return "audio";
    case IMAGE:
      return "image";
    default:
      return "";
  }
}

}  // namespace nembra
