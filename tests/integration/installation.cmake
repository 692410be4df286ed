# Nothing in the build tree or installed looks for libraries in the current folder, which an empty entry stands for.
# Installs into a folder of its own and builds a host against that, once through the CMake package and once through
# pkg-config.
set(prefix ${BUILD}/installation)
set(consumer ${BUILD}/consumer)
set(ENV{CAPTURE_RIG} demo)
file(REMOVE_RECURSE ${prefix} ${consumer})

macro(run)
  execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endmacro()

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})
foreach(place ${BUILD} ${prefix})
  foreach(file ${LIBDIR}/AVCaptureDevice.so ${LIBDIR}/libcaptureframeworks.so ${LIBDIR}/liblumora.so bin/brvhost)
    execute_process(COMMAND ${READELF} -d ${place}/${file} OUTPUT_VARIABLE dynamic COMMAND_ERROR_IS_FATAL ANY)
    if(dynamic MATCHES "R(UN)?PATH[^\n]*(\\[:|::|:\\]|\\[\\])")
      message(FATAL_ERROR "${place}/${file} looks in the current folder:\n${dynamic}")
    endif()
  endforeach()
endforeach()

run(${CMAKE_COMMAND} -S ${CONSUMER} -B ${consumer} -G Ninja -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_C_COMPILER=${C_COMPILER})
run(${CMAKE_COMMAND} --build ${consumer})
run(${consumer}/consumer)

set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
set(ENV{LD_LIBRARY_PATH} ${prefix}/${LIBDIR})
function(ask_pkg_config result)
  execute_process(COMMAND pkg-config ${ARGN} avcapturedevice
    OUTPUT_VARIABLE answer OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  separate_arguments(answer)
  set(${result} ${answer} PARENT_SCOPE)
endfunction()
ask_pkg_config(flags --cflags --libs)
ask_pkg_config(module --variable=module)
run(${C_COMPILER} -std=c11 ${CONSUMER}/host.c -o ${consumer}/with-pkg-config ${flags} -ldl "-DMODULE=\"${module}\"")
run(${consumer}/with-pkg-config)
find_program(OTHER_C_COMPILER clang)
if(OTHER_C_COMPILER)
  run(${OTHER_C_COMPILER} -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only ${CONSUMER}/host.c ${flags}
      -Wno-unused-command-line-argument "-DMODULE=\"${module}\"")
endif()
run(${prefix}/bin/brvhost list)
