#include "nembra/content_model.h"

namespace nembra {

void ContentModel::clear() {
  key.clear();
  title.clear();
  _description.clear();
  stateString.clear();
  token.clear();
  streamToken.clear();
  date = 0;
  duration = 0.0;
}

}  // namespace nembra
