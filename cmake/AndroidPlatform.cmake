# Debian's genuine Android libutils and liblog live in a private folder of the
# multiarch library directory; the imported targets carry that folder as an
# rpath so that every program linking them runs without LD_LIBRARY_PATH.
include(GNUInstallDirs)

set(ANDROID_PLATFORM_INCLUDE_DIR /usr/include/android)
if(CMAKE_LIBRARY_ARCHITECTURE)
  set(_android_lib_hint /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
endif()

find_path(ANDROID_UTILS_INCLUDE_DIR utils/RefBase.h PATHS ${ANDROID_PLATFORM_INCLUDE_DIR} NO_DEFAULT_PATH)
find_library(ANDROID_UTILS_LIBRARY NAMES utils PATHS ${_android_lib_hint} NO_DEFAULT_PATH)
find_library(ANDROID_LOG_LIBRARY NAMES log PATHS ${_android_lib_hint} NO_DEFAULT_PATH)

if(NOT ANDROID_UTILS_INCLUDE_DIR OR NOT ANDROID_UTILS_LIBRARY OR NOT ANDROID_LOG_LIBRARY)
  message(FATAL_ERROR
    "Android libutils/liblog not found under ${ANDROID_PLATFORM_INCLUDE_DIR} and ${_android_lib_hint}. "
    "Run scripts/setup to install android-libutils-dev and android-liblog-dev.")
endif()

get_filename_component(ANDROID_PLATFORM_LIB_DIR ${ANDROID_UTILS_LIBRARY} DIRECTORY)

# The platform headers are treated as system headers: their own warnings are
# not ours to fix.
add_library(android::log SHARED IMPORTED)
set_target_properties(android::log PROPERTIES
  IMPORTED_LOCATION ${ANDROID_LOG_LIBRARY}
  INTERFACE_SYSTEM_INCLUDE_DIRECTORIES ${ANDROID_PLATFORM_INCLUDE_DIR}
  INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_PLATFORM_INCLUDE_DIR}
  INTERFACE_LINK_OPTIONS "LINKER:-rpath,${ANDROID_PLATFORM_LIB_DIR}")

add_library(android::utils SHARED IMPORTED)
set_target_properties(android::utils PROPERTIES
  IMPORTED_LOCATION ${ANDROID_UTILS_LIBRARY}
  INTERFACE_SYSTEM_INCLUDE_DIRECTORIES ${ANDROID_PLATFORM_INCLUDE_DIR}
  INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_PLATFORM_INCLUDE_DIR}
  INTERFACE_LINK_LIBRARIES android::log)
