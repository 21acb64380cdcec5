# Python 3 discovery for embedding (headers + shared libpython).
#
# Honours SARVODE_PYTHON (path of an interpreter executable):
#   * empty    -> Debian's /usr/bin/python3 (python3-dev provides headers and
#                 libpython3.X.so)
#   * non-empty-> that interpreter, and *its own* headers and libpython
#                 (e.g. /root/.pyenv/versions/3.13.0/bin/python3)
# The interpreter is asked for its sysconfig paths and those are handed to
# FindPython3 as hints, with the LOCATION strategy, so headers/libraries of a
# different installation (e.g. Debian's) are never mixed in.
#
# Result: imported target Python3::Python (plus the usual Python3_* variables),
# SARVODE_DEFAULT_PYTHON_LIBRARY/_EXECUTABLE, and the helpers
#   sarvode_use_python_headers(<target>)       stable ABI (3.11), no library
#   sarvode_use_python_limited_api(<target>)   the same, linking Python3::Python
include_guard(GLOBAL)

set(SARVODE_PYTHON_MIN_VERSION 3.11)
set(SARVODE_PY_LIMITED_API 0x030B0000)

if(SARVODE_PYTHON)
  set(_sarvode_py "${SARVODE_PYTHON}")
else()
  set(_sarvode_py "/usr/bin/python3")
endif()

if(NOT IS_ABSOLUTE "${_sarvode_py}")
  find_program(_sarvode_py_abs NAMES "${_sarvode_py}" NO_CACHE)
  if(NOT _sarvode_py_abs)
    message(FATAL_ERROR "SARVODE_PYTHON='${SARVODE_PYTHON}' not found in PATH")
  endif()
  set(_sarvode_py "${_sarvode_py_abs}")
endif()
if(NOT EXISTS "${_sarvode_py}")
  message(FATAL_ERROR "Python interpreter '${_sarvode_py}' does not exist "
                      "(set SARVODE_PYTHON to an interpreter, or install python3-dev)")
endif()

# When the interpreter changes in an existing build tree, forget everything
# FindPython3 cached for the previous one.
if(DEFINED CACHE{_SARVODE_PYTHON_USED} AND NOT "$CACHE{_SARVODE_PYTHON_USED}" STREQUAL "${_sarvode_py}")
  message(STATUS "Python interpreter changed ($CACHE{_SARVODE_PYTHON_USED} -> ${_sarvode_py}), re-discovering")
  get_cmake_property(_cache_vars CACHE_VARIABLES)
  foreach(_v IN LISTS _cache_vars)
    if(_v MATCHES "^_?Python3_")
      unset(${_v} CACHE)
    endif()
  endforeach()
endif()
set(_SARVODE_PYTHON_USED "${_sarvode_py}" CACHE INTERNAL "")

# Ask the interpreter where its own development files are.
execute_process(
  COMMAND "${_sarvode_py}" -c [=[
import sys, sysconfig
v = sysconfig.get_config_var
inc = sysconfig.get_paths().get("include") or ""
libdir = v("LIBDIR") or ""
ldlib = v("LDLIBRARY") or ""
print(";".join([
    "%d.%d" % sys.version_info[:2],
    sys.base_prefix,
    inc,
    libdir,
    ldlib,
    str(v("Py_ENABLE_SHARED") or 0),
]))
]=]
  RESULT_VARIABLE _py_rc
  OUTPUT_VARIABLE _py_info
  ERROR_VARIABLE _py_err
  OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT _py_rc EQUAL 0)
  message(FATAL_ERROR "Could not query '${_sarvode_py}': ${_py_err}")
endif()
list(GET _py_info 0 _py_ver)
list(GET _py_info 1 _py_prefix)
list(GET _py_info 2 _py_include)
list(GET _py_info 3 _py_libdir)
list(GET _py_info 4 _py_ldlibrary)
list(GET _py_info 5 _py_shared)

if(_py_ver VERSION_LESS SARVODE_PYTHON_MIN_VERSION)
  message(FATAL_ERROR "${_sarvode_py} is Python ${_py_ver}; at least ${SARVODE_PYTHON_MIN_VERSION} is required")
endif()
if(NOT _py_shared)
  message(FATAL_ERROR
    "${_sarvode_py} (Python ${_py_ver}) was built without a shared libpython "
    "(Py_ENABLE_SHARED=0). Embedding needs libpython${_py_ver}.so; with pyenv rebuild it using "
    "PYTHON_CONFIGURE_OPTS=--enable-shared pyenv install <version>.")
endif()
if(NOT EXISTS "${_py_include}/Python.h")
  message(FATAL_ERROR
    "No Python.h in '${_py_include}' for ${_sarvode_py}. "
    "For Debian's interpreter install python3-dev (scripts/install-deps.sh).")
endif()

# Hints for FindPython3: this exact interpreter, its prefix, and search by
# location (first match in the hinted prefix wins, not the newest version).
set(Python3_EXECUTABLE "${_sarvode_py}")
set(Python3_ROOT_DIR "${_py_prefix}")
set(Python3_FIND_STRATEGY LOCATION)
set(Python3_FIND_VIRTUALENV STANDARD)
set(Python3_FIND_UNVERSIONED_NAMES FIRST)
if(NOT _py_prefix STREQUAL "/usr")
  # Non-system installs (pyenv, /opt, ...): pin the artifacts explicitly so
  # Debian's /usr/include/python3.X or /usr/lib/.../libpython3.X.so of the
  # same minor version can never be picked up instead.
  set(Python3_INCLUDE_DIR "${_py_include}")
  if(EXISTS "${_py_libdir}/${_py_ldlibrary}")
    set(Python3_LIBRARY "${_py_libdir}/${_py_ldlibrary}")
  endif()
endif()

find_package(Python3 ${SARVODE_PYTHON_MIN_VERSION} REQUIRED
  COMPONENTS Interpreter Development.Embed)

# Sanity check: everything must come from the same installation.
get_filename_component(_found_inc "${Python3_INCLUDE_DIRS}" REALPATH)
get_filename_component(_want_inc "${_py_include}" REALPATH)
if(NOT _found_inc STREQUAL _want_inc)
  message(FATAL_ERROR
    "FindPython3 picked headers '${Python3_INCLUDE_DIRS}' but ${_sarvode_py} uses '${_py_include}'")
endif()
if(NOT "${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR}" STREQUAL _py_ver)
  message(FATAL_ERROR "FindPython3 found Python ${Python3_VERSION} but ${_sarvode_py} is ${_py_ver}")
endif()

message(STATUS "Python ${Python3_VERSION}: ${Python3_EXECUTABLE}")
message(STATUS "  include: ${Python3_INCLUDE_DIRS}")
message(STATUS "  library: ${Python3_LIBRARIES}")

# The Python a build runs with when the host chooses none: its library (the
# file itself, not the development link) and its program.
if(WIN32)
  # The DLL beside python.exe (Python3_LIBRARIES names the import library).
  string(REPLACE "." "" _py_nodot "${_py_ver}")
  set(SARVODE_DEFAULT_PYTHON_LIBRARY "${_py_prefix}/python${_py_nodot}.dll")
else()
  list(GET Python3_LIBRARIES 0 _py_library)
  get_filename_component(SARVODE_DEFAULT_PYTHON_LIBRARY "${_py_library}" REALPATH)
endif()
set(SARVODE_DEFAULT_PYTHON_EXECUTABLE "${_sarvode_py}")
set(SARVODE_DEFAULT_PYTHON_VERSION "${_py_ver}")
message(STATUS "  default at run time: ${SARVODE_DEFAULT_PYTHON_LIBRARY}")

# sarvode_use_python_headers(<target>)
# Compiles <target> against the stable ABI of Python 3.11 without linking a
# Python library: the host loads the Python it chooses before <target>, whose
# Python symbols resolve to it, so one binary serves every later 3.x.
function(sarvode_use_python_headers target)
  get_target_property(_type ${target} TYPE)
  if(_type STREQUAL "INTERFACE_LIBRARY")
    set(_scope INTERFACE)
  else()
    set(_scope PUBLIC)
  endif()
  target_include_directories(${target} SYSTEM ${_scope} ${Python3_INCLUDE_DIRS})
  target_compile_definitions(${target} ${_scope} Py_LIMITED_API=${SARVODE_PY_LIMITED_API})
endfunction()

# sarvode_use_python_limited_api(<target>)
# The same, and links the build's Python library: for programs that start
# Python themselves (benchmarks, fuzzers).
function(sarvode_use_python_limited_api target)
  if(NOT TARGET ${target})
    message(FATAL_ERROR "sarvode_use_python_limited_api: '${target}' is not a target")
  endif()
  sarvode_use_python_headers(${target})
  get_target_property(_type ${target} TYPE)
  if(_type STREQUAL "INTERFACE_LIBRARY")
    target_link_libraries(${target} INTERFACE Python3::Python)
  else()
    target_link_libraries(${target} PUBLIC Python3::Python)
  endif()
endfunction()
