# Sanitizer builds, chosen with the cache variable KELDRA_SANITIZE:
#
#   ""         no sanitizer (the default)
#   "address"  AddressSanitizer with UndefinedBehaviorSanitizer; undefined
#              behaviour is fatal (-fno-sanitize-recover=undefined)
#   "thread"   ThreadSanitizer
#
# The flags go to every target defined after this module is included (keldra,
# its core, the platform stand-ins, the tools and the tests), except the
# libraries that are preloaded into other programs (keldra_unsanitized).
#
# The tests run every sanitized program with the options of
# keldra_sanitizer_env: ASan, LSan and TSan reports do not go to stderr (where
# they would mix with keldra's log) but to files
# <build>/sanitizer-reports/<test program>.<pid>, and tools/sanitize.sh fails
# when it finds any after ctest. The build directory is visible inside the
# sandbox, unlike /tmp and /run. UBSan ignores log_path next to ASan: its
# reports stay on stderr, where the scenario harness looks for them.
set(KELDRA_SANITIZE "" CACHE STRING "Sanitizer build: empty, address (ASan+UBSan) or thread (TSan)")
set_property(CACHE KELDRA_SANITIZE PROPERTY STRINGS "" address thread)

set(KELDRA_SANITIZER_REPORT_DIR ${CMAKE_BINARY_DIR}/sanitizer-reports)

if(KELDRA_SANITIZE STREQUAL "address")
  set(keldra_sanitize_flags -fsanitize=address,undefined -fno-sanitize-recover=undefined
      -fno-omit-frame-pointer)
elseif(KELDRA_SANITIZE STREQUAL "thread")
  set(keldra_sanitize_flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT KELDRA_SANITIZE STREQUAL "")
  message(FATAL_ERROR "KELDRA_SANITIZE must be empty, address or thread, not '${KELDRA_SANITIZE}'")
endif()

if(keldra_sanitize_flags)
  message(STATUS "Sanitizer build (${KELDRA_SANITIZE}): ${keldra_sanitize_flags}")
  add_compile_options(${keldra_sanitize_flags})
  # The instrumentation defeats GCC's flow analysis: instantiations of the
  # standard library (std::regex in the tests) then draw false
  # maybe-uninitialized warnings, which -Werror would turn into errors. The
  # build without sanitizer keeps the warning.
  add_compile_options(-Wno-maybe-uninitialized)
  add_link_options(${keldra_sanitize_flags})
  # Writable for all: launched daemons run as other users.
  file(MAKE_DIRECTORY ${KELDRA_SANITIZER_REPORT_DIR})
  file(CHMOD ${KELDRA_SANITIZER_REPORT_DIR} DIRECTORY_PERMISSIONS
       OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_WRITE GROUP_EXECUTE
       WORLD_READ WORLD_WRITE WORLD_EXECUTE)
endif()

# Leaves the given targets, if they exist, without sanitizer: a library that
# is preloaded into programs that are not sanitized (the scripts' shells)
# cannot carry a sanitizer runtime; and the sandbox's first process ends after
# the init of the PID namespace it created, where LeakSanitizer can no longer
# start the helper that it needs at exit.
function(keldra_unsanitized)
  if(NOT keldra_sanitize_flags)
    return()
  endif()
  foreach(target IN LISTS ARGN)
    if(TARGET ${target})
      target_compile_options(${target} PRIVATE -fno-sanitize=all)
      target_link_options(${target} PRIVATE -fno-sanitize=all)
    endif()
  endforeach()
endfunction()

# Adds to the given executables, in an AddressSanitizer build, the hook that
# leaves the leak check to the process that was started and spares the
# children it forks (tools/sanitizer/lsan_fork_hook.cc).
function(keldra_sanitizer_hooks)
  if(NOT KELDRA_SANITIZE STREQUAL "address")
    return()
  endif()
  foreach(target IN LISTS ARGN)
    target_sources(${target} PRIVATE ${CMAKE_SOURCE_DIR}/tools/sanitizer/lsan_fork_hook.cc)
  endforeach()
endfunction()

# Sets out_var to the command prefix ("env;NAME=value;...") that gives a
# sanitized test program, and every process it starts, the run-time options
# of the sanitizer; empty in a build without sanitizer. `name` names the
# report files.
#
# Both: the simulated daemons end themselves with signals such as SIGSEGV on
# request, and must die of them as a program without sanitizer would; so the
# sanitizers leave the fatal signals alone (handle_segv=0 and the like).
#
# address: the preload libraries of the sandbox come before the ASan runtime
# in the list of libraries, which ASan would refuse by default
# (verify_asan_link_order=0). Local variables live on ASan's separate "fake"
# stack (detect_stack_use_after_return=1): a cancelled launcher thread
# unwinds without running the epilogues that clear the poisoning of its
# frames, and its cleanup handler would then run over that stale poisoning of
# the real stack and be reported. An error ends the process with status 86 at
# the first report; leaks are reported at exit, with whole allocation stacks
# (fast_unwind_on_malloc=0) so that tools/lsan.supp can name the leaks that
# keldra accepts.
# thread: every race is reported (halt_on_error=0, so one run shows them all)
# and the process exits with status 66 if there was one; tools/tsan.supp holds
# the flags that are read without the lock by design.
function(keldra_sanitizer_env out_var name)
  set(log ${KELDRA_SANITIZER_REPORT_DIR}/${name})
  set(signals handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0)
  if(KELDRA_SANITIZE STREQUAL "address")
    set(env env
      "ASAN_OPTIONS=verify_asan_link_order=0:detect_stack_use_after_return=1:fast_unwind_on_malloc=0:${signals}:halt_on_error=1:abort_on_error=0:exitcode=86:detect_leaks=1:log_path=${log}"
      "LSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/tools/lsan.supp:print_suppressions=0"
      "UBSAN_OPTIONS=halt_on_error=1:abort_on_error=0:exitcode=86:print_stacktrace=1:log_path=${log}")
  elseif(KELDRA_SANITIZE STREQUAL "thread")
    set(env env
      "TSAN_OPTIONS=${signals}:halt_on_error=0:exitcode=66:second_deadlock_stack=1:suppressions=${CMAKE_SOURCE_DIR}/tools/tsan.supp:log_path=${log}")
  else()
    set(env "")
  endif()
  set(${out_var} "${env}" PARENT_SCOPE)
endfunction()
