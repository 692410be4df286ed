# Debian packages, one a component: tools/package builds them.
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL runtime development python)
if(TARGET gstbrv)
  list(APPEND CPACK_COMPONENTS_ALL gstreamer)
endif()
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "AVCaptureDevice's maintainers <maintainers@avcapturedevice.example>")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/docs.cmake)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)  # of the same version
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# The first line is the summary; what follows it, the description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME avcapturedevice)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION video)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "pipewire, wireplumber")
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/debian/triggers CONTENT "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "capture-source plug-in for live video production hosts
The plug-in hands a machine's cameras, microphones and camcorders to a host as
frames and sound: found, paired, followed through hot-plug, and time-stamped.
On Linux they come from PipeWire; simulated ones are described by a file.
.
With it comes brvhost, which lists, shows and records them on the command line.")

set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME avcapturedevice-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "headers and examples for hosts of the capture-source plug-in
For hosts in C and C++: the plug-in's interface with its loader, the headers of
the frameworks whose objects it hands out, a CMake package, a pkg-config file,
and examples.")

set(CPACK_COMPONENT_PYTHON_DEPENDS runtime)
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-brv)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.11)")
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS python3-numpy)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "cameras and microphones in Python through the capture-source plug-in
The package brv lists the plug-in's sources, sets them, and reads pictures and
sound as memory views or arrays, without copying pixels.")

set(CPACK_COMPONENT_GSTREAMER_DEPENDS runtime)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_NAME gstreamer1.0-avcapturedevice)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_SECTION video)
set(CPACK_DEBIAN_GSTREAMER_DESCRIPTION "GStreamer elements for the sources of the capture-source plug-in
Cameras, microphones and camcorders of the plug-in as elements of GStreamer.")
include(CPack)
