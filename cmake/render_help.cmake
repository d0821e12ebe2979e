# Turns the manual page of korvel-lock into the text of its --help (the
# SYNOPSIS, OPTIONS and EXIT STATUS sections, rendered as plain text) and
# into the compressed page that is installed. Usage:
#   cmake -DGROFF=groff -DGZIP=gzip -DMAN=korvel-lock.1 -DHELP=help.h -DGZ=korvel-lock.1.gz
#         -P render_help.cmake
execute_process(
  COMMAND ${GROFF} -man -Tascii -P-cbou -rLL=78n -ww ${MAN}
  OUTPUT_VARIABLE rendered ERROR_VARIABLE warnings RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT warnings STREQUAL "")
  message(FATAL_ERROR "groff failed on ${MAN} (${rc}):\n${warnings}")
endif()

# Section headings are the lines that start in the first column; the page
# header and footer are dropped with the sections that are not wanted.
string(REPLACE ";" "\\;" rendered "${rendered}")
string(REPLACE "\n" ";" lines "${rendered}")
set(help "")
set(keep FALSE)
set(blank FALSE)
set(afterHeading FALSE)
foreach(line IN LISTS lines)
  string(REGEX REPLACE " +$" "" line "${line}")
  if(line MATCHES "^[A-Z]")
    set(keep FALSE)
    if(line MATCHES "^(SYNOPSIS|OPTIONS|EXIT STATUS)$")
      set(keep TRUE)
      if(NOT help STREQUAL "")
        string(APPEND help "\n")
      endif()
      string(APPEND help "${line}\n")
      set(afterHeading TRUE)
      set(blank FALSE)
    endif()
  elseif(keep)
    if(line STREQUAL "")
      set(blank TRUE)
    else()
      if(blank AND NOT afterHeading)
        string(APPEND help "\n")
      endif()
      set(blank FALSE)
      set(afterHeading FALSE)
      string(APPEND help "${line}\n")
    endif()
  endif()
endforeach()
foreach(section SYNOPSIS OPTIONS "EXIT STATUS")
  if(NOT help MATCHES "(^|\n)${section}\n")
    message(FATAL_ERROR "${MAN} has no ${section} section")
  endif()
endforeach()
string(APPEND help "\nThe manual, korvel-lock(1), has the whole story.\n")
file(WRITE ${HELP} "// Generated from the manual page by render_help.cmake: do not edit.\n"
                   "static const char kHelpText[] = R\"korvel_help(${help})korvel_help\";\n")

execute_process(COMMAND ${GZIP} -9n -c ${MAN} OUTPUT_FILE ${GZ} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "gzip failed on ${MAN}")
endif()
