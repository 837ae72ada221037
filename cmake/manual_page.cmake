# Writes the manual page OUTPUT of the program, or of its COMMAND, with HELP2MAN.
string(STRIP "talvik ${COMMAND}" title)
execute_process(COMMAND "${PROGRAM}" ${COMMAND} --help OUTPUT_VARIABLE help COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCH "^[^\n]*" summary "${help}")
set(ENV{SOURCE_DATE_EPOCH} 0)  # no date, so that the page changes with the program alone
execute_process(COMMAND "${HELP2MAN}" --no-info --no-discard-stderr "--name=${summary}"
  "--version-string=${VERSION}" "--source=talvik ${VERSION}" "--output=${OUTPUT}"
  "${PROGRAM} ${COMMAND}" COMMAND_ERROR_IS_FATAL ANY)
file(READ "${OUTPUT}" page)
string(REGEX REPLACE "\n\\.TH [^\n]*" "\n.TH \"${title}\" \"1\" \"\" \"talvik ${VERSION}\" \"User Commands\"" page "${page}")
file(WRITE "${OUTPUT}" "${page}")
