# Renders a manual page as plain text for the Windows archive: no bold or underline by
# overstriking, CR LF line ends for Windows editors.
#   cmake -DPAGE=man/fwforge.1 -DOUT=fwforge.txt -P render-page.cmake
find_program(GROFF groff)
if(NOT GROFF)
  message(FATAL_ERROR "groff is needed to render ${PAGE} as text (Debian: groff-base)")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C.UTF-8
                        ${GROFF} -man -Tascii -P-cbou -ww ${PAGE}
                RESULT_VARIABLE status OUTPUT_VARIABLE text ERROR_VARIABLE warnings)
if(NOT status EQUAL 0 OR NOT warnings STREQUAL "")
  message(FATAL_ERROR "${PAGE} does not render cleanly (status ${status}):\n${warnings}")
endif()
string(REPLACE "\n" "\r\n" text "${text}")
file(WRITE ${OUT} "${text}")
