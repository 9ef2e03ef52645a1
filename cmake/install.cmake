# Installation of the library for hosts built elsewhere:
#
#   <prefix>/lib/libwebchannel.so.1.0.0, .so.1 (SONAME), .so (link name)
#   <prefix>/include/webchannel/channel/  the channel's public headers: the C++
#                                         interface VRAXSecureWebChannel.h and
#                                         the C interface webchannel.h (kept in
#                                         channel/c/ of the sources, where no
#                                         name differs from webChannel.h by
#                                         case alone)
#   <prefix>/include/webchannel/util/     the utility library's headers (they
#                                         reach ../channel/webchannel_export.h)
#   <prefix>/lib/pkgconfig/webchannel.pc
#   <prefix>/lib/cmake/webchannel/        webchannelConfig.cmake, its version
#                                         file and the target webchannel::webchannel
#
# Hosts write #include "VRAXSecureWebChannel.h" (as inside the source tree,
# where channel/ is on the include path) or "channel/VRAXSecureWebChannel.h"
# and "util/webutil.h": both include directories are exported. C hosts write
# #include "webchannel.h".
#
# Every generated file is relocatable: it finds the prefix from its own
# location, so `cmake --install build --prefix DIR` works for any DIR.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(WEBCHANNEL_INCLUDE_ROOT ${CMAKE_INSTALL_INCLUDEDIR}/webchannel)
set(WEBCHANNEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/webchannel)

# The same name inside this build as for the installed package.
add_library(webchannel::webchannel ALIAS webchannel)

install(TARGETS webchannel
  EXPORT webchannelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT Runtime
    NAMELINK_COMPONENT Development
  INCLUDES DESTINATION ${WEBCHANNEL_INCLUDE_ROOT}/channel ${WEBCHANNEL_INCLUDE_ROOT})

install(FILES
    ${PROJECT_SOURCE_DIR}/channel/VRAXSecureWebChannel.h
    ${PROJECT_SOURCE_DIR}/channel/webchannel_codes.h
    ${PROJECT_SOURCE_DIR}/channel/webchannel_export.h
    ${PROJECT_SOURCE_DIR}/channel/c/webchannel.h
  DESTINATION ${WEBCHANNEL_INCLUDE_ROOT}/channel
  COMPONENT Development)
install(FILES
    ${PROJECT_SOURCE_DIR}/util/webutil.h
    ${PROJECT_SOURCE_DIR}/util/console.h
    ${PROJECT_SOURCE_DIR}/util/fs.h
    ${PROJECT_SOURCE_DIR}/util/logging.h
    ${PROJECT_SOURCE_DIR}/util/process.h
    ${PROJECT_SOURCE_DIR}/util/strings.h
  DESTINATION ${WEBCHANNEL_INCLUDE_ROOT}/util
  COMPONENT Development)

# CMake package: find_package(webchannel) gives webchannel::webchannel.
install(EXPORT webchannelTargets
  NAMESPACE webchannel::
  FILE webchannelTargets.cmake
  DESTINATION ${WEBCHANNEL_CMAKE_DIR}
  COMPONENT Development)

set(config_file ${CMAKE_CURRENT_BINARY_DIR}/package/webchannelConfig.cmake)
file(WRITE ${config_file}
"# CMake package of the web channel library.
#   find_package(webchannel 1 REQUIRED)
#   target_link_libraries(host PRIVATE webchannel::webchannel)
# The target's include directories hold the C++ interface
# (VRAXSecureWebChannel.h) and the C interface (webchannel.h). The library
# links OpenSSL and the thread library itself; hosts need neither to build
# against it.
include(\"\${CMAKE_CURRENT_LIST_DIR}/webchannelTargets.cmake\")
set(webchannel_LIBRARIES webchannel::webchannel)
")
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/package/webchannelConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
    ${config_file}
    ${CMAKE_CURRENT_BINARY_DIR}/package/webchannelConfigVersion.cmake
  DESTINATION ${WEBCHANNEL_CMAKE_DIR}
  COMPONENT Development)

# pkg-config: the prefix is found from the .pc file's own directory.
file(RELATIVE_PATH pc_to_prefix
  ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/package/webchannel.pc
"# Headers: VRAXSecureWebChannel.h (C++), webchannel.h (C), util/webutil.h.
prefix=\${pcfiledir}/${pc_to_prefix}
libdir=\${prefix}/${CMAKE_INSTALL_LIBDIR}
includedir=\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}

Name: webchannel
Description: HTTP/1.1 and HTTPS transfer channel (single requests and parallel verified batches), C++ and C interfaces
Version: ${PROJECT_VERSION}
Libs: -L\${libdir} -lwebchannel
Cflags: -I\${includedir}/webchannel/channel -I\${includedir}/webchannel
")
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/package/webchannel.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT Development)
