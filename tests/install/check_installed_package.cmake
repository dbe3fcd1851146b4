# Installs the build into a fresh prefix, then configures, builds and runs the
# examples against it, the smallest once through the CMake package and once
# through pkg-config, so that a broken export fails here. With -DPACKAGES=ON
# the prefix is instead what the Debian packages (cpack -G DEB) unpack to in
# a scratch root, after a look at their dependencies and contents.
file(REMOVE_RECURSE ${WORK_DIR})

function(run_step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "step failed (${result}): ${ARGN}\n${out}\n${err}")
  endif()
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

# The value of `field` of the package `deb`, in `variable`.
function(package_field variable deb field)
  run_step(dpkg-deb --field ${deb} ${field})
  set(${variable} "${step_output}" PARENT_SCOPE)
endfunction()

if(PACKAGES)
  run_step(cpack -G DEB --config ${BINARY_DIR}/CPackConfig.cmake -B ${WORK_DIR}/debs)
  file(GLOB runtime_deb ${WORK_DIR}/debs/libaudio2components[0-9]*.deb)
  file(GLOB development_deb ${WORK_DIR}/debs/libaudio2components-dev_*.deb)
  if(NOT runtime_deb OR NOT development_deb)
    message(FATAL_ERROR "cpack made: ${step_output}")
  endif()
  package_field(runtime_depends ${runtime_deb} Depends)
  package_field(runtime_name ${runtime_deb} Package)
  package_field(development_depends ${development_deb} Depends)
  # dpkg-shlibdeps found the codecs' and the sound libraries' packages; the
  # development package wants exactly this runtime package.
  foreach(library libopus0 libsndfile1 libspeexdsp1 libportaudio2 libboost-filesystem1.74.0 libc6 libstdc[+][+]6)
    if(NOT runtime_depends MATCHES "(^|, )${library}( |,|$)")
      message(FATAL_ERROR "runtime package does not depend on ${library}: ${runtime_depends}")
    endif()
  endforeach()
  string(STRIP "${runtime_name}" runtime_name)
  if(NOT development_depends MATCHES "${runtime_name} \\(= ")
    message(FATAL_ERROR "development package depends on: ${development_depends}")
  endif()
  # Versioned libraries at run time, the link names and headers for development.
  run_step(dpkg-deb --contents ${runtime_deb})
  foreach(file lib/libaudio2components.so.0 lib/audio2components/libshared.so.0 lib/audio2components/libg711.so.0
               lib/audio2components/libsonrabase.so.0 lib/audio2components/libsonrauniversaldev.so.0)
    if(NOT step_output MATCHES "/usr/${file}")
      message(FATAL_ERROR "runtime package lacks ${file}:\n${step_output}")
    endif()
  endforeach()
  if(step_output MATCHES "\\.so -> |/include/")
    message(FATAL_ERROR "runtime package holds development files:\n${step_output}")
  endif()
  run_step(dpkg-deb --contents ${development_deb})
  foreach(file lib/libaudio2components.so lib/audio2components/libshared.so include/audio2components/sonrabase.h
               lib/pkgconfig/audio2components.pc lib/cmake/Audio2Components/Audio2ComponentsConfig.cmake)
    if(NOT step_output MATCHES "/usr/${file}")
      message(FATAL_ERROR "development package lacks ${file}:\n${step_output}")
    endif()
  endforeach()
  run_step(dpkg-deb -x ${runtime_deb} ${WORK_DIR}/root)
  run_step(dpkg-deb -x ${development_deb} ${WORK_DIR}/root)
  set(prefix ${WORK_DIR}/root/usr)
else()
  set(prefix ${WORK_DIR}/prefix)
  run_step(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})
endif()

# Every installed library names its major version; each finds its siblings.
file(GLOB_RECURSE libraries ${prefix}/lib/*.so)
foreach(library IN LISTS libraries)
  run_step(readelf -d ${library})
  get_filename_component(name ${library} NAME)
  if(NOT step_output MATCHES "Library soname: \\[${name}\\.0\\]")
    message(FATAL_ERROR "${library} has no versioned soname:\n${step_output}")
  endif()
endforeach()
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
