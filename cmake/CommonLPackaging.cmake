# Debian packages through CPack (`./dev package`), one per install component:
#   libcommonl1                 runtime: libCommonL.so.1
#   libcommonl-dev              dev: headers, libCommonL.so, CMake package, commonl.pc
#   libkorvalogger-qmt-standin  logger: the stand-in libkorvalogger-qmt.so and korvalogger.h
#   commonl-tools               tool: the commonl program, where it is built
# The library needs some libkorvalogger-qmt.so, which the stand-in package
# and the recorder's real logger both provide under the virtual package name
# libkorvalogger-qmt; the two exclude each other, as they ship the same file.
# Everything else a package needs comes from dpkg-shlibdeps.

set(COMMONL_DEB_runtime libcommonl1)
set(COMMONL_DEB_dev libcommonl-dev)
set(COMMONL_DEB_logger libkorvalogger-qmt-standin)
set(COMMONL_DEB_tool commonl-tools)
set(COMMONL_PACKAGE_COMPONENTS runtime dev)
if(COMMONL_LOGGER STREQUAL "standin")
  list(APPEND COMMONL_PACKAGE_COMPONENTS logger)
endif()
if(TARGET commonl)
  list(APPEND COMMONL_PACKAGE_COMPONENTS tool)
endif()

# Every package carries its changelog and copyright under
# share/doc/<package>/, as Debian wants them.
set(_commonl_changelog ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz)
configure_file(packaging/changelog ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian COPYONLY)
execute_process(COMMAND gzip -n -9 -f -k ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian
  RESULT_VARIABLE _commonl_gzip)
if(NOT _commonl_gzip EQUAL 0)
  message(FATAL_ERROR "could not compress packaging/changelog")
endif()
foreach(_commonl_component IN LISTS COMMONL_PACKAGE_COMPONENTS)
  install(FILES ${_commonl_changelog} packaging/copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${COMMONL_DEB_${_commonl_component}}
    COMPONENT ${_commonl_component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME commonl)
set(CPACK_PACKAGE_VENDOR Tessend)
set(CPACK_PACKAGE_CONTACT Tessend)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
# The install scripts see the packages' own prefix (/usr), which commonl.pc records.
set(CPACK_SET_DESTDIR ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${COMMONL_PACKAGE_COMPONENTS})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tool needs libCommonL.so.1, which no installed package holds yet:
# dpkg-shlibdeps reads it in the build tree, and the tool's dependency on
# libcommonl1 comes from its component's DEPENDS.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

foreach(_commonl_component IN ITEMS runtime dev logger tool)
  string(TOUPPER ${_commonl_component} _commonl_upper)
  set(CPACK_DEBIAN_${_commonl_upper}_PACKAGE_NAME ${COMMONL_DEB_${_commonl_component}})
endforeach()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS libkorvalogger-qmt)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LOGGER_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LOGGER_PACKAGE_PROVIDES libkorvalogger-qmt)
set(CPACK_DEBIAN_LOGGER_PACKAGE_CONFLICTS libkorvalogger-qmt)
set(CPACK_DEBIAN_LOGGER_PACKAGE_REPLACES libkorvalogger-qmt)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)

# The first line is the synopsis.
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Win32 kernel objects, time records and machine services for Linux
libCommonL.so lets software written against Win32 run on Linux: handles,
events, waits, mutexes, semaphores, waitable timers and threads under their
Win32 names, Win32 time records, the hardware catalogue, the system
information of the machine and the alarm sound.")
set(CPACK_DEBIAN_DEV_DESCRIPTION "CommonL development files
The headers under include/CommonL/, the libCommonL.so link, the CMake
package (find_package(CommonL), target CommonL::CommonL) and the pkg-config
file commonl.pc.")
set(CPACK_DEBIAN_LOGGER_DESCRIPTION "Stand-in for the logger libkorvalogger-qmt.so
Writes one line per message to standard error, at the level given by
KORVA_LOG_LEVEL (default 3). A recorder installs its real logger instead.")
set(CPACK_DEBIAN_TOOL_DESCRIPTION "CommonL field tool
The commonl program shows what the CommonL library sees on a machine,
checks its files (sysinfo.json, hw-models.conf), and checks Win32 sources
for uses that behave differently under CommonL.")

include(CPack)

cpack_add_component(runtime DISPLAY_NAME "CommonL library")
cpack_add_component(dev DISPLAY_NAME "CommonL development files" DEPENDS runtime)
if(COMMONL_LOGGER STREQUAL "standin")
  cpack_add_component(logger DISPLAY_NAME "Logger stand-in")
endif()
if(TARGET commonl)
  cpack_add_component(tool DISPLAY_NAME "CommonL field tool" DEPENDS runtime)
endif()
