#Nothing in the build tree or installed looks for libraries in the current folder, which an empty entry stands for.
#Installs into a folder of its own, moves that, and builds the examples against it, once through the CMake package and
#once through pkg - config.
set(prefix ${BUILD} / installation) set(examples ${BUILD} / installed - examples) set(ENV{
    CAPTURE_RIG} demo) file(REMOVE_RECURSE ${prefix} ${prefix} - first ${examples})

    macro(run) execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY) endmacro()

        run(
            $ { CMAKE_COMMAND } --install $ { BUILD } --prefix ${prefix} -
            first) file(RENAME ${prefix} - first ${prefix}) foreach (place ${BUILD} ${
            prefix}) foreach (file ${LIBDIR} / AVCaptureDevice.so ${LIBDIR} / libcaptureframeworks.so ${LIBDIR} /
                              liblumora.so bin / brvhost)
            execute_process(COMMAND ${READELF} - d ${place} / ${file} OUTPUT_VARIABLE dynamic COMMAND_ERROR_IS_FATAL
                                                                  ANY) if (dynamic MATCHES
                                                                           "R(UN)?PATH[^\n]*(\\[:|::|:\\]|\\[\\])")
                message(FATAL_ERROR
                        "${place}/${file} looks in the current folder:\n${dynamic}") endif() endforeach() endforeach()

                    set(sources ${prefix} / ${DOCDIR} /
                        examples) run(${CMAKE_COMMAND} - S ${sources} - B ${examples} - G Ninja - DCMAKE_PREFIX_PATH =
                                          ${prefix} -
                                          DCMAKE_C_COMPILER =
                                              ${C_COMPILER} -
                                              DCMAKE_CXX_COMPILER =
                                                  ${CXX_COMPILER}) run($ { CMAKE_COMMAND } --build ${
                        examples}) set(EXAMPLES ${examples}) set(PICTURES ${
                        examples}) include(${CMAKE_CURRENT_LIST_DIR} / examples.cmake)

                        set(ENV{PKG_CONFIG_PATH} ${prefix} / ${LIBDIR} / pkgconfig) function(ask_pkg_config result)
                            execute_process(
                                COMMAND pkg -
                                config ${
                                    ARGN} avcapturedevice OUTPUT_VARIABLE answer OUTPUT_STRIP_TRAILING_WHITESPACE
                                    COMMAND_ERROR_IS_FATAL ANY) separate_arguments(answer) set(${result} ${
                                answer} PARENT_SCOPE) endfunction() ask_pkg_config(flags-- cflags-- libs)
                                ask_pkg_config(libraries-- variable =
                                                   libdir) run(${C_COMPILER} - std = c11 ${sources} / list_and_save.c -
                                                                                     o ${examples} /
                                                                                         list_and_save ${flags} -
                                                                                     Wl,
                                                               -rpath, ${libraries})
                                    run(${CXX_COMPILER} -
                                            std = c++ 20 ${sources} /
                                                      two_cameras.cpp -
                                                  o ${examples} /
                                                      two_cameras ${flags} -
                                                  Wl,
                                        -rpath, ${libraries}) include(${CMAKE_CURRENT_LIST_DIR} / examples.cmake)

#The C headers are C11, for every compiler that is here.
                                        file(GLOB headers RELATIVE ${prefix} / include ${prefix} /
                                             include /*.h ${prefix}/include/captureframeworks/*/ *
                                                 .h) list(TRANSFORM headers REPLACE
                                                          "(captureframeworks/)?(.+)"
                                                          "#include <\\2>\n")
                                            file(WRITE ${examples} /
                                                 headers.c ${headers}) find_program(OTHER_C_COMPILER clang)
                                                foreach (compiler ${C_COMPILER} ${OTHER_C_COMPILER}) run(
                                                    ${compiler} - std =
                                                        c11 -
                                                        Wall -
                                                        Wextra - Wpedantic - Werror -
                                                        Wno -
                                                        unused - command - line -
                                                        argument - fsyntax -
                                                        only ${examples} /
                                                            headers.c ${
                                                                flags}) endforeach() run(${prefix} / bin / brvhost list)

#The completion and the manual page are of the program as it is.
                                                    execute_process(
                                                        COMMAND bash - c
                                                            "source ${prefix}/share/bash-completion/completions/brvhost
                                                            COMP_WORDS = (${prefix} / bin / brvhost-- quiet show desk)
                                                            COMP_CWORD = 3;
                                                        _brvhost; printf '%s,' \"\${COMPREPLY[@]}\"
                                                                  COMP_WORDS = (${prefix} / bin / brvhost list-- pr)
                                                                      COMP_CWORD = 2;
                                                        _brvhost;
                                                        printf '%s,' \"\${COMPREPLY[@]}\"" OUTPUT_VARIABLE completed
                                                            COMMAND_ERROR_IS_FATAL ANY)
                                                        file(READ ${prefix} / share / man / man1 / brvhost .1 page) if (
                                                            NOT completed STREQUAL
                                                            [[Desk\ Camera\ Video, Desk\ Camera\ 1\ Video, --probe,
]] OR NOT page MATCHES[[\\-\\- until\\- idle]]) message(FATAL_ERROR "completed: ${completed}\n${page}") endif()
