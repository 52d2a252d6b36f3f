# Every third-party library comes from a Debian package (scripts/install-deps.sh).
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)

# nembra_pkg_modules(NAME module...) gives PkgConfig::NAME and remembers its modules, so that the
# installed package (nembra.pc, nembraConfig.cmake) can ask for them in turn.
macro(nembra_pkg_modules name)
  pkg_check_modules(${name} REQUIRED IMPORTED_TARGET ${ARGN})
  set(NEMBRA_PKG_MODULES_${name} ${ARGN})
endmacro()

if(NOT NEMBRA_FUZZ)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(SQLite3 REQUIRED)
nembra_pkg_modules(FFMPEG
  libavformat libavcodec libavutil libswscale libswresample libavdevice libavfilter)
# The window and audio output of the screens (platform/ui, platform/audio).
nembra_pkg_modules(SDL2 sdl2 SDL2_ttf)
# Loopback servers in tests and the local service.
nembra_pkg_modules(HTTPLIB cpp-httplib)
# VAST ad documents (api/vast_*).
nembra_pkg_modules(PUGIXML pugixml)
# Now-playing information on the session bus (platform/system/mpris_*).
nembra_pkg_modules(DBUS dbus-1)
# The screen-cast portal's frames (the media plug-in's PipeWire screen source); only the plug-in
# links it, so the installed package does not ask for it.
pkg_check_modules(PIPEWIRE REQUIRED IMPORTED_TARGET libpipewire-0.3)
# The local service's offline transcripts (platform/speech) and the model's folder.
# Debian's pocketsphinx.pc names an include folder that does not exist, which an imported
# target refuses; the target is made from the folders that do.
pkg_check_modules(POCKETSPHINX REQUIRED pocketsphinx)
pkg_get_variable(POCKETSPHINX_MODELDIR pocketsphinx modeldir)
set(pocketsphinx_includes)
foreach(dir ${POCKETSPHINX_INCLUDE_DIRS})
  if(EXISTS ${dir})
    list(APPEND pocketsphinx_includes ${dir})
  endif()
endforeach()
add_library(nembra_pocketsphinx INTERFACE)
target_include_directories(nembra_pocketsphinx SYSTEM INTERFACE ${pocketsphinx_includes})
target_link_libraries(nembra_pocketsphinx INTERFACE ${POCKETSPHINX_LINK_LIBRARIES})

if(NOT NEMBRA_SANITIZE AND NOT NEMBRA_FUZZ)
  find_package(benchmark REQUIRED)
  find_package(CLI11 REQUIRED)
endif()
# Faces and QR codes in camera pictures (platform/vision): OpenCV's cascade detector and zbar.
# Debian's objdetect and imgproc packages ship neither a pkg-config file nor a CMake package.
nembra_pkg_modules(ZBAR zbar)
find_path(OPENCV_INCLUDE_DIR opencv2/objdetect.hpp PATH_SUFFIXES opencv4 REQUIRED)
# Linked by bare name, so that nembra.pc can say -lopencv_objdetect... as they are.
set(NEMBRA_OPENCV_LIBRARIES opencv_objdetect opencv_imgproc opencv_core)
foreach(library ${NEMBRA_OPENCV_LIBRARIES})
  find_library(${library}_PATH ${library} REQUIRED)
endforeach()
