# FindGMP
# -------
# Finds the GNU Multiple Precision library (Debian: libgmp-dev).
#
# Imported targets:
#   GMP::gmp     the C library   (gmp.h,   -lgmp)
#   GMP::gmpxx   the C++ wrapper (gmpxx.h, -lgmpxx), links GMP::gmp
#
# Result variables:
#   GMP_FOUND, GMP_VERSION, GMP_INCLUDE_DIR, GMP_LIBRARY, GMPXX_LIBRARY
include_guard(GLOBAL)

find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(PC_GMP QUIET gmp)
  pkg_check_modules(PC_GMPXX QUIET gmpxx)
endif()

find_path(GMP_INCLUDE_DIR gmp.h HINTS ${PC_GMP_INCLUDEDIR} ${PC_GMP_INCLUDE_DIRS})
find_library(GMP_LIBRARY NAMES gmp HINTS ${PC_GMP_LIBDIR} ${PC_GMP_LIBRARY_DIRS})
find_path(GMPXX_INCLUDE_DIR gmpxx.h HINTS ${PC_GMPXX_INCLUDEDIR} ${PC_GMPXX_INCLUDE_DIRS} ${GMP_INCLUDE_DIR})
find_library(GMPXX_LIBRARY NAMES gmpxx HINTS ${PC_GMPXX_LIBDIR} ${PC_GMPXX_LIBRARY_DIRS})

if(PC_GMP_VERSION)
  set(GMP_VERSION ${PC_GMP_VERSION})
elseif(GMP_INCLUDE_DIR)
  # gmp.h may include an per-architecture header; fall back to grepping it.
  file(GLOB _gmp_headers "${GMP_INCLUDE_DIR}/gmp.h" "${GMP_INCLUDE_DIR}/*/gmp.h")
  foreach(_h IN LISTS _gmp_headers)
    file(STRINGS "${_h}" _gmp_ver REGEX "^#define __GNU_MP_VERSION(_MINOR|_PATCHLEVEL)? +[0-9]+")
    if(_gmp_ver)
      string(REGEX REPLACE ".*__GNU_MP_VERSION +([0-9]+).*" "\\1" _maj "${_gmp_ver}")
      string(REGEX REPLACE ".*__GNU_MP_VERSION_MINOR +([0-9]+).*" "\\1" _min "${_gmp_ver}")
      string(REGEX REPLACE ".*__GNU_MP_VERSION_PATCHLEVEL +([0-9]+).*" "\\1" _pat "${_gmp_ver}")
      set(GMP_VERSION "${_maj}.${_min}.${_pat}")
      break()
    endif()
  endforeach()
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(GMP
  REQUIRED_VARS GMP_LIBRARY GMP_INCLUDE_DIR
  VERSION_VAR GMP_VERSION)

if(GMP_FOUND AND NOT TARGET GMP::gmp)
  add_library(GMP::gmp UNKNOWN IMPORTED)
  set_target_properties(GMP::gmp PROPERTIES
    IMPORTED_LOCATION "${GMP_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${GMP_INCLUDE_DIR}")
endif()

if(GMP_FOUND AND GMPXX_LIBRARY AND GMPXX_INCLUDE_DIR AND NOT TARGET GMP::gmpxx)
  add_library(GMP::gmpxx UNKNOWN IMPORTED)
  set_target_properties(GMP::gmpxx PROPERTIES
    IMPORTED_LOCATION "${GMPXX_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${GMPXX_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES GMP::gmp)
endif()

mark_as_advanced(GMP_INCLUDE_DIR GMP_LIBRARY GMPXX_INCLUDE_DIR GMPXX_LIBRARY)
