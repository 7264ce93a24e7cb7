# Installs the build in BIN into a fresh prefix and checks what arrives there: the three
# programs in bin/ and their manual pages in share/man/man1/, each of which man (or, where
# man is missing, groff) renders without a warning; the helper tools' completion (bash,
# or PowerShell on Windows), README.md and LICENSE.
#   cmake -DBIN=BUILD_DIR -DEXE_SUFFIX=.exe -P check_install.cmake
set(prefix ${BIN}/install-check)
file(REMOVE_RECURSE ${prefix})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BIN} --prefix ${prefix}
                RESULT_VARIABLE status OUTPUT_QUIET ERROR_VARIABLE error)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "cmake --install ${BIN} --prefix ${prefix} failed: ${error}")
endif()

set(others ${prefix}/share/doc/fwforge/README.md ${prefix}/share/doc/fwforge/LICENSE)
if(EXE_SUFFIX STREQUAL ".exe")
  list(APPEND others ${prefix}/bin/fwforge.ps1)
else()
  foreach(tool fwforge-inspect fwforge-lzh)
    list(APPEND others ${prefix}/share/bash-completion/completions/${tool})
  endforeach()
endif()
foreach(file ${others})
  if(NOT EXISTS ${file})
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()

find_program(MAN man)
find_program(GROFF groff)
foreach(tool fwforge fwforge-inspect fwforge-lzh)
  set(program ${prefix}/bin/${tool}${EXE_SUFFIX})
  set(page ${prefix}/share/man/man1/${tool}.1)
  foreach(file ${program} ${page})
    if(NOT EXISTS ${file})
      message(FATAL_ERROR "not installed: ${file}")
    endif()
  endforeach()
  if(MAN)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env MANWIDTH=80 LC_ALL=C.UTF-8
                            ${MAN} --warnings -l ${page}
                    RESULT_VARIABLE status OUTPUT_VARIABLE text ERROR_VARIABLE warnings)
  elseif(GROFF)
    execute_process(COMMAND ${GROFF} -man -Tutf8 -ww ${page}
                    RESULT_VARIABLE status OUTPUT_VARIABLE text ERROR_VARIABLE warnings)
  else()
    message(STATUS "neither man nor groff: ${page} not rendered")
    continue()
  endif()
  if(NOT status EQUAL 0 OR NOT warnings STREQUAL "" OR NOT text MATCHES "NAME.*${tool}")
    message(FATAL_ERROR "${page} does not render cleanly (status ${status}):\n${warnings}")
  endif()
endforeach()
file(REMOVE_RECURSE ${prefix})
