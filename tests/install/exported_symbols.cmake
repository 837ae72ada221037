# The dynamic symbols that LIBRARY defines are members of the namespace talvik itself, and as many
# as HEADER declares: none is missing, and none was forgotten there.
execute_process(COMMAND ${NM} -DC --defined-only ${LIBRARY}
  OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE ";" "," symbols "${symbols}")
string(REGEX MATCHALL "[^\n]+" symbols "${symbols}")
foreach(symbol IN LISTS symbols)
  if(NOT symbol MATCHES "^[0-9a-f]+ . talvik::[A-Za-z0-9_]+(\\(|$)")
    message(SEND_ERROR "exported, but no member of the namespace talvik: ${symbol}")
  endif()
endforeach()
file(READ "${HEADER}" header)
string(REGEX MATCHALL "TALVIK_API [a-z]" declarations "${header}")
list(LENGTH symbols exported)
list(LENGTH declarations declared)
if(NOT exported EQUAL declared)
  message(SEND_ERROR "${declared} names declared in ${HEADER}, ${exported} exported")
endif()
