#include "nembra/nembra_audios.h"

namespace nembra {

std::string NembraAudios::getAudioUrl(const std::string& token) { return mediaUrl(token); }

}  // namespace nembra
