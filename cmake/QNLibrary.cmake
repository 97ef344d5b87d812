# The shared library libQNMovieDownloader.so: all rooms below the program in one file. Only what is marked QN_EXPORT can
# be seen from outside, so the parsers and the transfer room stay its own affair.

include(CMakePackageConfigHelpers)
include(QNPublicHeaders)

add_library(QNMovieDownloader SHARED)
# By their objects and not as archives, or what nobody in here calls would be left out.
foreach(room IN ITEMS qn_qnc qn_mpl qn_platform qn_host qn_playlist qn_engine)
  get_target_property(kind ${room} TYPE)
  if(kind STREQUAL "STATIC_LIBRARY")
    target_sources(QNMovieDownloader PRIVATE $<TARGET_OBJECTS:${room}>)
  endif()
endforeach()
# Of the rooms this adds the third-party libraries, and the objects of the transfer room.
target_link_libraries(QNMovieDownloader PRIVATE
  qn_transfer qn_engine qn_playlist qn_host qn_platform qn_mpl qn_qnc qn_options)
target_compile_features(QNMovieDownloader INTERFACE cxx_std_20)
target_sources(QNMovieDownloader PUBLIC
  FILE_SET HEADERS BASE_DIRS "${PROJECT_SOURCE_DIR}" FILES ${QN_PUBLIC_HEADERS})
set_target_properties(QNMovieDownloader PROPERTIES
  LINKER_LANGUAGE CXX
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR})
# Threads of the library may run until the process ends: its code must never be unmapped by dlclose.
target_link_options(QNMovieDownloader PRIVATE LINKER:-z,nodelete)
if(NOT QN_SANITIZE)
  target_link_options(QNMovieDownloader PRIVATE LINKER:-z,defs)
endif()

set(QN_INCLUDE_DIR "${CMAKE_INSTALL_INCLUDEDIR}/QNMovieDownloader")
set(QN_PACKAGE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/QNMovieDownloader")

install(TARGETS QNMovieDownloader EXPORT QNMovieDownloaderTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT library NAMELINK_COMPONENT library
  FILE_SET HEADERS DESTINATION "${QN_INCLUDE_DIR}" COMPONENT library
  INCLUDES DESTINATION "${QN_INCLUDE_DIR}")
install(EXPORT QNMovieDownloaderTargets NAMESPACE QNMovieDownloader:: DESTINATION "${QN_PACKAGE_DIR}"
  COMPONENT library)

configure_package_config_file(
  "${CMAKE_CURRENT_LIST_DIR}/QNMovieDownloaderConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/QNMovieDownloaderConfig.cmake"
  INSTALL_DESTINATION "${QN_PACKAGE_DIR}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/QNMovieDownloaderConfigVersion.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/QNMovieDownloaderConfig.cmake"
  "${PROJECT_BINARY_DIR}/QNMovieDownloaderConfigVersion.cmake"
  DESTINATION "${QN_PACKAGE_DIR}" COMPONENT library)

# The file finds its prefix from where it lies, so that an installed tree may be moved.
file(RELATIVE_PATH QN_PREFIX_FROM_PC "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file("${CMAKE_CURRENT_LIST_DIR}/QNMovieDownloader.pc.in" "${PROJECT_BINARY_DIR}/QNMovieDownloader.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/QNMovieDownloader.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
  COMPONENT library)
