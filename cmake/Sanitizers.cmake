# sarvode_enable_sanitizers()
#
# Turns on AddressSanitizer + UndefinedBehaviorSanitizer for every target
# defined after the call (compile and link flags of the current directory and
# its subdirectories).  Any sanitizer finding aborts the program.
#
# Runtime options used by the Makefile:
#   ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:abort_on_error=1
#   UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
#   LSAN_OPTIONS=suppressions=scripts/lsan.supp
include_guard(GLOBAL)

set(SARVODE_SANITIZER_FLAGS
  -fsanitize=address,undefined
  -fno-sanitize-recover=all
  -fno-omit-frame-pointer)

function(sarvode_enable_sanitizers)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    message(FATAL_ERROR "SARVODE_SANITIZE needs GCC or Clang (got ${CMAKE_CXX_COMPILER_ID})")
  endif()

  # Fail early with a clear message when the runtime is missing
  # (e.g. clang without libclang-rt-14-dev).
  include(CheckCXXSourceCompiles)
  set(CMAKE_REQUIRED_FLAGS "${SARVODE_SANITIZER_FLAGS}")
  list(JOIN CMAKE_REQUIRED_FLAGS " " CMAKE_REQUIRED_FLAGS)
  set(CMAKE_REQUIRED_LINK_OPTIONS ${SARVODE_SANITIZER_FLAGS})
  check_cxx_source_compiles("int main() { return 0; }" SARVODE_HAVE_SANITIZERS)
  if(NOT SARVODE_HAVE_SANITIZERS)
    message(FATAL_ERROR
      "SARVODE_SANITIZE=ON but ${CMAKE_CXX_COMPILER} cannot build/link with "
      "'${SARVODE_SANITIZER_FLAGS}'. Install the sanitizer runtime "
      "(libclang-rt-14-dev for clang-14; g++ ships libasan/libubsan).")
  endif()

  add_compile_options(${SARVODE_SANITIZER_FLAGS})
  add_link_options(${SARVODE_SANITIZER_FLAGS})
  # AddressSanitizer intercepts crypt() but finds the real function only in a
  # library loaded at start-up; Python's _crypt loads libcrypt later, and its
  # first call then jumps to null. Loading libcrypt with every program keeps
  # "import crypt" (and so importing the whole standard library) working.
  find_library(SARVODE_CRYPT_LIBRARY crypt)
  if(SARVODE_CRYPT_LIBRARY)
    add_link_options(-Wl,--push-state,--no-as-needed ${SARVODE_CRYPT_LIBRARY} -Wl,--pop-state)
  endif()
  message(STATUS "Sanitizers enabled: ${SARVODE_SANITIZER_FLAGS}")
endfunction()

# sarvode_enable_thread_sanitizer()
#
# ThreadSanitizer for every target defined after the call (`make test-tsan`).
# The interpreter itself is not instrumented; its lock is a pthread mutex and
# condition variable, which the sanitizer sees.
function(sarvode_enable_thread_sanitizer)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    message(FATAL_ERROR "SARVODE_TSAN needs GCC or Clang (got ${CMAKE_CXX_COMPILER_ID})")
  endif()
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
  message(STATUS "ThreadSanitizer enabled")
endfunction()
