# The C interface is the one that hosts were built against: the module's dynamic symbols are the functions that its
# header declares, and the header, comments aside, is the copy that stands beside this file. That copy pins the records'
# sizes and offsets, every constant and every signature, and hosts built with it are run against the module. With
# ACCEPT, a deliberate change is written into it.
get_filename_component(header_name ${HEADER} NAME)
set(pinned ${CMAKE_CURRENT_LIST_DIR}/1.0/${header_name})

execute_process(COMMAND ${NM} -D --defined-only ${MODULE} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^ \n]+\n" symbols "${symbols}")
list(TRANSFORM symbols STRIP)

# Semicolons would make lists of the text.
string(ASCII 59 semicolon)
macro(read_bare file result)
  file(READ ${file} ${result})
  string(REPLACE "${semicolon}" "@" ${result} "${${result}}")
  string(REGEX REPLACE "/\\*([^*]|\\*+[^*/])*\\*+/" "" ${result} "${${result}}")
  string(REGEX REPLACE " +\n" "\n" ${result} "${${result}}")
  string(REGEX REPLACE "\n\n+" "\n\n" ${result} "${${result}}")
  string(STRIP "${${result}}" ${result})
endmacro()

read_bare(${HEADER} header)
string(REGEX MATCHALL "BRV_EXPORT [a-z]+ BRV_[A-Za-z]+" declared "${header}")
list(TRANSFORM declared REPLACE ".* " "")
list(SORT symbols)
list(SORT declared)
if(NOT symbols STREQUAL declared)
  message(FATAL_ERROR "exported: ${symbols}\ndeclared: ${declared}")
endif()

if(ACCEPT)
  string(REPLACE "@" "${semicolon}" text "${header}")
  file(WRITE ${pinned} "${text}\n")
endif()
read_bare(${pinned} earlier)
string(REGEX REPLACE "[ \n]+" " " header_words "${header}")
string(REGEX REPLACE "[ \n]+" " " earlier_words "${earlier}")
if(NOT header_words STREQUAL earlier_words)
  string(REPLACE "@" "${semicolon}" text "${header}")
  set(now ${CMAKE_CURRENT_BINARY_DIR}/${header_name}.now)
  file(WRITE ${now} "${text}\n")
  execute_process(COMMAND diff -u ${pinned} ${now})
  message(FATAL_ERROR "The C interface has changed. Hosts that exist would break, unless something was only added. To accept: "
    "cmake -DACCEPT=ON -DMODULE=${MODULE} -DNM=${NM} -DHEADER=${HEADER} -P ${CMAKE_CURRENT_LIST_FILE}")
endif()
