# Every third-party library comes from a Debian package (scripts/install-deps.sh).
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)

if(NOT NEMBRA_FUZZ)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(SQLite3 REQUIRED)
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET
  libavformat libavcodec libavutil libswscale libswresample libavdevice libavfilter)
# The window and audio output of the screens (platform/ui, platform/audio).
pkg_check_modules(SDL2 REQUIRED IMPORTED_TARGET sdl2 SDL2_ttf)
# Loopback servers in tests and the local service.
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)

if(NOT NEMBRA_SANITIZE AND NOT NEMBRA_FUZZ)
  find_package(benchmark REQUIRED)
  find_package(CLI11 REQUIRED)
endif()
# Faces and QR codes in camera pictures (platform/vision): OpenCV's cascade detector and zbar.
# Debian's objdetect and imgproc packages ship neither a pkg-config file nor a CMake package.
pkg_check_modules(ZBAR REQUIRED IMPORTED_TARGET zbar)
find_path(OPENCV_INCLUDE_DIR opencv2/objdetect.hpp PATH_SUFFIXES opencv4 REQUIRED)
add_library(nembra_opencv INTERFACE)
target_include_directories(nembra_opencv SYSTEM INTERFACE ${OPENCV_INCLUDE_DIR})
foreach(module objdetect imgproc core)
  find_library(OPENCV_${module}_LIBRARY opencv_${module} REQUIRED)
  target_link_libraries(nembra_opencv INTERFACE ${OPENCV_${module}_LIBRARY})
endforeach()
