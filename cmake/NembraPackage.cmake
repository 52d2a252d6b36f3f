# The SDK as a host application builds against it: libnembra, shared (SONAME libnembra.so.MAJOR)
# and static, made of the objects the modules below have already compiled, and what
# `cmake --install build --prefix P` puts under P:
#   include/nembra/               the public headers (include/nembra in the source tree)
#   lib/libnembra.so*, libnembra.a
#   lib/nembra/                   the FFmpeg plug-in, where libnembra looks for it
#   lib/cmake/nembra/             find_package(nembra CONFIG) giving nembra::nembra
#                                 (and nembra::nembra_static)
#   lib/pkgconfig/nembra.pc
#   bin/nembra                    the tool (cli/)
# (lib is CMAKE_INSTALL_LIBDIR.)

include(CMakePackageConfigHelpers)

# The modules a host's program runs on, screens included. A module joins when its folder exists.
set(NEMBRA_SDK_MODULES)
foreach(module recorder playback capture viewer api ui streaming vision platform)
  if(TARGET nembra_${module})
    list(APPEND NEMBRA_SDK_MODULES nembra_${module})
  endif()
endforeach()

# Their objects, compiled once as position-independent code for the shared library and linked
# as they are into the tool and tests; and what they link besides one another.
set(NEMBRA_SDK_OBJECTS)
set(NEMBRA_SDK_DEPS)
foreach(module ${NEMBRA_SDK_MODULES})
  set_target_properties(${module} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  # Code as fast as -fPIE's: calls inside the library are not made interposable.
  target_compile_options(${module} PRIVATE
    $<$<CXX_COMPILER_ID:GNU,Clang>:-fno-semantic-interposition>)
  list(APPEND NEMBRA_SDK_OBJECTS $<TARGET_OBJECTS:${module}>)
  get_target_property(deps ${module} LINK_LIBRARIES)
  foreach(dep ${deps})
    if(dep AND NOT dep IN_LIST NEMBRA_SDK_MODULES AND NOT dep IN_LIST NEMBRA_SDK_DEPS
       AND NOT dep STREQUAL "nlohmann_json::nlohmann_json")
      list(APPEND NEMBRA_SDK_DEPS ${dep})
    endif()
  endforeach()
endforeach()

# The library's targets: nembra::nembra (shared) and nembra::nembra_static, the same in the build
# tree (examples/) as from an install.
add_library(nembra_sdk SHARED ${NEMBRA_SDK_OBJECTS})
add_library(nembra_sdk_static STATIC ${NEMBRA_SDK_OBJECTS})
add_library(nembra::nembra ALIAS nembra_sdk)
add_library(nembra::nembra_static ALIAS nembra_sdk_static)
set_target_properties(nembra_sdk PROPERTIES
  OUTPUT_NAME nembra
  EXPORT_NAME nembra
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
set_target_properties(nembra_sdk_static PROPERTIES
  OUTPUT_NAME nembra
  EXPORT_NAME nembra_static
  ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
target_link_options(nembra_sdk PRIVATE -Wl,--no-undefined)
foreach(target nembra_sdk nembra_sdk_static)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_link_libraries(${target} PUBLIC nlohmann_json::nlohmann_json PRIVATE ${NEMBRA_SDK_DEPS})
endforeach()
# The plug-in is loaded at run time; building the library builds it too.
add_dependencies(nembra_sdk nembra_media_ffmpeg)

# What a host needs found besides the library: the package behind each imported target
# (find_dependency), and the pkg-config modules and flags of nembra.pc.
set(NEMBRA_FIND_DEPENDENCIES "find_dependency(nlohmann_json)\n")
set(NEMBRA_FIND_PKG_MODULES)
set(NEMBRA_PC_REQUIRES_PRIVATE)
set(NEMBRA_PC_LIBS_PRIVATE)
foreach(dep ${NEMBRA_SDK_DEPS})
  if(dep STREQUAL "Threads::Threads")
    list(APPEND NEMBRA_PC_LIBS_PRIVATE -pthread)
  elseif(dep STREQUAL "CURL::libcurl")
    list(APPEND NEMBRA_PC_REQUIRES_PRIVATE libcurl)
  elseif(dep STREQUAL "OpenSSL::Crypto")
    list(APPEND NEMBRA_PC_REQUIRES_PRIVATE libcrypto)
  elseif(dep STREQUAL "OpenSSL::SSL")
    list(APPEND NEMBRA_PC_REQUIRES_PRIVATE libssl)
  elseif(dep MATCHES "^PkgConfig::(.+)$")
    # Found with nembra_pkg_modules (cmake/NembraDependencies.cmake), which kept the modules.
    set(name ${CMAKE_MATCH_1})
    if(NOT NEMBRA_PKG_MODULES_${name})
      message(FATAL_ERROR "cmake/NembraPackage.cmake: find ${dep} with nembra_pkg_modules")
    endif()
    list(APPEND NEMBRA_PC_REQUIRES_PRIVATE ${NEMBRA_PKG_MODULES_${name}})
    list(JOIN NEMBRA_PKG_MODULES_${name} " " modules)
    string(APPEND NEMBRA_FIND_PKG_MODULES
      "pkg_check_modules(${name} REQUIRED QUIET IMPORTED_TARGET ${modules})\n")
  elseif(NOT dep MATCHES "::")
    list(APPEND NEMBRA_PC_LIBS_PRIVATE -l${dep})
  else()
    message(FATAL_ERROR "cmake/NembraPackage.cmake: say which pkg-config module is ${dep}")
  endif()
  if(dep MATCHES "^([A-Za-z0-9_]+)::")
    set(package ${CMAKE_MATCH_1})
    if(NOT NEMBRA_FIND_DEPENDENCIES MATCHES "find_dependency\\(${package}\\)")
      string(APPEND NEMBRA_FIND_DEPENDENCIES "find_dependency(${package})\n")
    endif()
  endif()
endforeach()
string(APPEND NEMBRA_FIND_DEPENDENCIES "${NEMBRA_FIND_PKG_MODULES}")
list(REMOVE_DUPLICATES NEMBRA_PC_REQUIRES_PRIVATE)
list(JOIN NEMBRA_PC_REQUIRES_PRIVATE " " NEMBRA_PC_REQUIRES_PRIVATE)
list(JOIN NEMBRA_PC_LIBS_PRIVATE " " NEMBRA_PC_LIBS_PRIVATE)

set(NEMBRA_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/nembra)
set(NEMBRA_PC_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
# nembra.pc names the prefix from its own place, so the install may move.
file(RELATIVE_PATH NEMBRA_PC_TO_PREFIX /${NEMBRA_PC_INSTALL_DIR} /)
string(REGEX REPLACE "/$" "" NEMBRA_PC_TO_PREFIX "${NEMBRA_PC_TO_PREFIX}")

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/nembraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/package/nembraConfig.cmake
  INSTALL_DESTINATION ${NEMBRA_CMAKE_INSTALL_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/nembraConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMinorVersion)
configure_file(${PROJECT_SOURCE_DIR}/cmake/nembra.pc.in ${PROJECT_BINARY_DIR}/package/nembra.pc
  @ONLY)

install(TARGETS nembra_sdk nembra_sdk_static
  EXPORT nembraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/nembra
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(EXPORT nembraTargets
  NAMESPACE nembra::
  DESTINATION ${NEMBRA_CMAKE_INSTALL_DIR})
install(FILES
  ${PROJECT_BINARY_DIR}/package/nembraConfig.cmake
  ${PROJECT_BINARY_DIR}/package/nembraConfigVersion.cmake
  DESTINATION ${NEMBRA_CMAKE_INSTALL_DIR})
install(FILES ${PROJECT_BINARY_DIR}/package/nembra.pc DESTINATION ${NEMBRA_PC_INSTALL_DIR})
