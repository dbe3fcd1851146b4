# Finds every library the components and their siblings call. Shared by the
# build and the installed package, so both see the same imported targets.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
find_dependency(Boost 1.74 COMPONENTS system thread filesystem iostreams)
find_dependency(PkgConfig)
foreach(_sonra_dep IN ITEMS
    "SonraOpus;opus" "SonraSpeexDsp;speexdsp" "SonraSndFile;sndfile"
    "SonraSoundTouch;soundtouch" "SonraPortAudio;portaudio-2.0" "SonraMd;libmd")
  list(GET _sonra_dep 0 _sonra_prefix)
  list(GET _sonra_dep 1 _sonra_module)
  if(NOT TARGET PkgConfig::${_sonra_prefix})
    pkg_check_modules(${_sonra_prefix} REQUIRED IMPORTED_TARGET GLOBAL ${_sonra_module})
  endif()
endforeach()
