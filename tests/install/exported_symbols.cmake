# The dynamic symbols that LIBRARY defines lie in the namespace talvik, none in an inner one, and
# are those that HEADER declares.
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^ \n]+\n" names "${symbols}")
set(public 0)
foreach(name IN LISTS names)
  string(STRIP "${name}" name)
  # _ZN6talvik<length><name>E...: a member of the namespace itself, variable or function.
  if(NOT name MATCHES "^_ZN6talvik([0-9]+)([A-Za-z_].*)$")
    message(SEND_ERROR "exported, but not in namespace talvik: ${name}")
    continue()
  endif()
  set(length ${CMAKE_MATCH_1})
  set(rest "${CMAKE_MATCH_2}")
  string(SUBSTRING "${rest}" ${length} 1 after_name)
  if(NOT after_name STREQUAL "E")
    message(SEND_ERROR "exported from an inner namespace or a template: ${name}")
  endif()
  math(EXPR public "${public} + 1")
endforeach()
# One symbol for each declaration of the header: none is missing, and none was forgotten there.
file(READ "${HEADER}" header)
string(REGEX MATCHALL "TALVIK_API [a-z]" declarations "${header}")
list(LENGTH declarations declared)
if(NOT public EQUAL declared)
  message(SEND_ERROR "${declared} names declared in ${HEADER}, ${public} exported")
endif()
