# Debian packages: `cpack -G DEB` in a build folder makes
#   libaudio2components0     the libraries (the siblings in their own folder) and the tools
#   libaudio2components-dev  headers, the CMake package and the pkg-config file
# dpkg-shlibdeps works out what the libraries and tools need from the system.
set(CPACK_PACKAGE_NAME audio2components)
set(CPACK_PACKAGE_VENDOR "audio2components developers")
set(CPACK_PACKAGE_CONTACT "audio2components developers <audio2components@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Audio-processing nodes for voice and media graphs")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime development)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The siblings are found in the package itself, not on the system.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ${CMAKE_BINARY_DIR}/siblings ${CMAKE_BINARY_DIR}/multimedia/audio2/audio2components)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libaudio2components${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libaudio2components-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The headers include Boost's, libsndfile's and the sound device's; the CMake
# package looks the rest up too.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libboost-dev (>= 1.74), libboost-system-dev (>= 1.74), libboost-thread-dev (>= 1.74), libboost-filesystem-dev (>= 1.74), libboost-iostreams-dev (>= 1.74), libsndfile1-dev, libopus-dev, libspeexdsp-dev, libsoundtouch-dev, portaudio19-dev, libmd-dev, pkg-config")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "audio2components: the libraries and the command-line tools")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "audio2components: headers, CMake package and pkg-config file")
include(CPack)
