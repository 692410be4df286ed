# The module's dynamic symbols are exactly the functions that the header declares.
execute_process(COMMAND ${NM} -D --defined-only ${MODULE} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^ \n]+\n" symbols "${symbols}")
list(TRANSFORM symbols STRIP)

file(READ ${HEADER} header)
string(REGEX MATCHALL "BRV_EXPORT [a-z]+ BRV_[A-Za-z]+" declared "${header}")
list(TRANSFORM declared REPLACE ".* " "")

list(SORT symbols)
list(SORT declared)
if(NOT symbols STREQUAL declared)
  message(FATAL_ERROR "exported: ${symbols}\ndeclared: ${declared}")
endif()
