# sarvode_target_warnings(<target>)
#
# Adds the project's warning set to <target> (PRIVATE, so it does not leak to
# consumers).  Works with GCC and Clang; C++-only flags are limited to C++
# sources so mixed C/C++ targets stay quiet.  With SARVODE_WERROR=ON warnings
# become errors.
include_guard(GLOBAL)

function(sarvode_target_warnings target)
  if(NOT TARGET ${target})
    message(FATAL_ERROR "sarvode_target_warnings: '${target}' is not a target")
  endif()

  get_target_property(_type ${target} TYPE)
  if(_type STREQUAL "INTERFACE_LIBRARY")
    set(_scope INTERFACE)
  else()
    set(_scope PRIVATE)
  endif()

  if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    target_compile_options(${target} ${_scope}
      -Wall
      -Wextra
      -Wpedantic
      -Wshadow
      $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
      $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
      $<$<BOOL:${SARVODE_WERROR}>:-Werror>)
  elseif(MSVC)
    target_compile_options(${target} ${_scope}
      /W4 /permissive-
      $<$<BOOL:${SARVODE_WERROR}>:/WX>)
  else()
    message(WARNING "sarvode_target_warnings: unknown compiler '${CMAKE_CXX_COMPILER_ID}', no warnings added")
  endif()
endfunction()
