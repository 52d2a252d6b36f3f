// The version of this SDK, as the service sees it in device info. It comes from the project
// version in the top-level CMakeLists.txt, so there is one place to change it.
#pragma once

#ifndef NEMBRA_SDK_VERSION
#error "NEMBRA_SDK_VERSION is defined by the build (api/CMakeLists.txt); link nembra_api"
#endif

namespace nembra {

inline constexpr const char* kNembraSdkVersion = NEMBRA_SDK_VERSION;

}  // namespace nembra
