# Finds Debian's packaging of the platform's liblog and libutils.
# They live off the default search paths (headers under /usr/include/android,
# libraries under <libdir>/android), so plain find_library would miss them.
#
# Provides the imported targets Android::log and Android::utils and the
# variable AndroidPlatform_LIBRARY_DIRS (for run paths).

find_path(AndroidPlatform_INCLUDE_DIR
  NAMES utils/RefBase.h
  PATHS /usr/include/android
  NO_DEFAULT_PATH)

set(_android_lib_hints
  /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android
  /usr/lib/x86_64-linux-gnu/android
  /usr/lib/android)

find_library(AndroidPlatform_LOG_LIBRARY NAMES log PATHS ${_android_lib_hints} NO_DEFAULT_PATH)
find_library(AndroidPlatform_UTILS_LIBRARY NAMES utils PATHS ${_android_lib_hints} NO_DEFAULT_PATH)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(AndroidPlatform
  REQUIRED_VARS AndroidPlatform_INCLUDE_DIR AndroidPlatform_LOG_LIBRARY AndroidPlatform_UTILS_LIBRARY)

if(AndroidPlatform_FOUND)
  get_filename_component(AndroidPlatform_LIBRARY_DIRS "${AndroidPlatform_UTILS_LIBRARY}" DIRECTORY)
  if(NOT TARGET Android::log)
    add_library(Android::log SHARED IMPORTED)
    set_target_properties(Android::log PROPERTIES
      IMPORTED_LOCATION "${AndroidPlatform_LOG_LIBRARY}"
      INTERFACE_INCLUDE_DIRECTORIES "${AndroidPlatform_INCLUDE_DIR}")
  endif()
  if(NOT TARGET Android::utils)
    add_library(Android::utils SHARED IMPORTED)
    set_target_properties(Android::utils PROPERTIES
      IMPORTED_LOCATION "${AndroidPlatform_UTILS_LIBRARY}"
      INTERFACE_INCLUDE_DIRECTORIES "${AndroidPlatform_INCLUDE_DIR}"
      INTERFACE_LINK_LIBRARIES Android::log)
  endif()
endif()
mark_as_advanced(AndroidPlatform_INCLUDE_DIR AndroidPlatform_LOG_LIBRARY AndroidPlatform_UTILS_LIBRARY)
