# Installs the build into a fresh prefix, then configures, builds and runs the
# examples against it, the smallest once through the CMake package and once
# through pkg-config, so that a broken export fails here.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run_step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "step failed (${result}): ${ARGN}\n${out}\n${err}")
  endif()
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

run_step(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})
# Installed tools run from the prefix with nothing on the loader's path.
if(EXISTS ${prefix}/bin/sonra-netsim)
  run_step(${prefix}/bin/sonra-netsim --help)
  if(NOT step_output MATCHES "sonra-netsim")
    message(FATAL_ERROR "installed sonra-netsim printed: ${step_output}")
  endif()
endif()

run_step(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/mix -B ${WORK_DIR}/mix
         -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix})
run_step(${CMAKE_COMMAND} --build ${WORK_DIR}/mix)
run_step(${WORK_DIR}/mix/mix)
if(NOT step_output MATCHES "mixed 640 bytes, first sample 3000")
  message(FATAL_ERROR "mix example printed: ${step_output}")
endif()

# pkg-config: compile the same program with the flags the .pc file gives.
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs audio2components
  RESULT_VARIABLE result OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know audio2components")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run_step(c++ -std=c++17 ${SOURCE_DIR}/examples/mix/mix.cpp ${flags}
         -Wl,-rpath,${prefix}/lib -o ${WORK_DIR}/mix_pc)
run_step(${WORK_DIR}/mix_pc)
if(NOT step_output MATCHES "mixed 640 bytes, first sample 3000")
  message(FATAL_ERROR "pkg-config mix example printed: ${step_output}")
endif()

# The README's receive-path example, against the same installed package.
run_step(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/receive -B ${WORK_DIR}/receive
         -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix})
run_step(${CMAKE_COMMAND} --build ${WORK_DIR}/receive)
run_step(${WORK_DIR}/receive/receive)
if(NOT step_output MATCHES "received [1-9][0-9]* packets, played [1-9][0-9]*")
  message(FATAL_ERROR "receive example printed: ${step_output}")
endif()
