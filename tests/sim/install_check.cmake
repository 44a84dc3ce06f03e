# Installs the build into a fresh prefix and checks that tavsim and its
# manual page land there, the tool runs, and the page has no troff warnings.
#   cmake -DBUILD=dir -DPREFIX=dir [-DGROFF=path] -P install_check.cmake
file(REMOVE_RECURSE "${PREFIX}")
execute_process(COMMAND "${CMAKE_COMMAND}" --install "${BUILD}" --prefix "${PREFIX}"
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${rc}")
endif()
foreach(f bin/tavsim share/man/man1/tavsim.1)
  if(NOT EXISTS "${PREFIX}/${f}")
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
execute_process(COMMAND "${PREFIX}/bin/tavsim" --version OUTPUT_VARIABLE version RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT version MATCHES "^tavsim [0-9]")
  message(FATAL_ERROR "the installed tavsim gave ${rc}: ${version}")
endif()
if(GROFF)
  execute_process(COMMAND "${GROFF}" -man -Tutf8 -ww -z "${PREFIX}/share/man/man1/tavsim.1"
                  ERROR_VARIABLE warnings RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0 OR NOT warnings STREQUAL "")
    message(FATAL_ERROR "tavsim.1: ${warnings}")
  endif()
endif()
file(REMOVE_RECURSE "${PREFIX}")
