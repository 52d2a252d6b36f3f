#include "nembra/nembra_images.h"

namespace nembra {

std::string NembraImages::getImageUrl(const std::string& token) { return mediaUrl(token); }

}  // namespace nembra
