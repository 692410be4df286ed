#The module exports the entry points that BRV_AVCapture.exports names, all of them and nothing else, the header
#declares them, and the loader finds them.
execute_process(COMMAND ${NM} - D-- defined - only ${MODULE} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
    file(READ ${INTERFACE}.exports names) file(READ ${INTERFACE}.h header) file(READ ${
        INTERFACE} Loader.h loader) string(REGEX MATCHALL
                                           "[A-Za-z_0-9]+\n" exported
                                           "${symbols}") string(REGEX MATCHALL "BRV_[A-Za-z]+" promised "${names}")
        string(REGEX MATCHALL "BRV_ENTRY_POINT\\([a-z]+, BRV_[A-Za-z]+" declared
                              "${header}") string(REGEX MATCHALL "DO\\(BRV_[A-Za-z]+" loaded "${loader}")
            list(TRANSFORM exported STRIP) list(TRANSFORM declared REPLACE
                                                ".* "
                                                "") list(TRANSFORM loaded REPLACE
                                                         ".*\\("
                                                         "") foreach (list exported promised declared loaded)
                list(SORT ${list}) endforeach() if (
                    NOT exported STREQUAL promised OR NOT declared STREQUAL promised OR NOT loaded STREQUAL promised)
                    message(FATAL_ERROR
                            "promised: ${promised}\nexported: ${exported}\ndeclared: ${declared}\nloaded: ${loaded}")
                        endif()

#The frameworks export to hosts what captureframeworks.exports names, all of it and nothing else.
                            execute_process(COMMAND ${NM} - D-- defined -
                                            only ${FRAMEWORKS} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
                                file(READ ${FRAMEWORKS_SOURCES} / captureframeworks.exports names) string(REGEX REPLACE
                                                                                                          "}.*"
                                                                                                          "" names
                                                                                                          "${names}")
                                    string(REGEX MATCHALL "k?C[FMV][A-Za-z0-9_]+;" promised "${names}")
                                        string(REGEX MATCHALL "k?C[FMV][A-Za-z0-9_]+@@CAPTUREFRAMEWORKS_1\n" exported
                                                              "${symbols}") list(TRANSFORM promised REPLACE
                                                                                 ";"
                                                                                 "") list(TRANSFORM exported REPLACE
                                                                                          "@.*"
                                                                                          "") list(SORT promised)
                                            list(SORT exported) if (NOT exported STREQUAL promised)
                                                message(FATAL_ERROR "promised: ${promised}\nexported: ${exported}")
                                                    endif()
