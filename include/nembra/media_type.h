// The media type codes every media operation takes (upload handler, cache manager, players).
// Plain integers, as hosts pass them: an unknown code is not an error by itself, each operation
// says what it does with one.
#pragma once

namespace nembra {

inline constexpr int VIDEO = 1;
inline constexpr int AUDIO = 2;
inline constexpr int IMAGE = 5;

// "video", "audio", "image", or "" for an unknown code.
const char* mediaTypeName(int type);

}  // namespace nembra
