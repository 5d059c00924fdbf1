# What `cmake --install` puts where, by component:
#   runtime  libCommonL.so.1 and its version
#   dev      the headers under include/CommonL/, the libCommonL.so link, the
#            CMake package (CommonL::CommonL) and commonl.pc
#   logger   the stand-in libkorvalogger-qmt.so and korvalogger.h
#            (COMMONL_LOGGER=standin only)
#   tool     the commonl program, where it is built

# --- run paths ---
# An installed libCommonL.so finds the stand-in logger beside it, and an
# installed program finds libCommonL.so from bindir. A libdir where the
# loader looks anyway (/usr, as in the Debian packages) needs neither. A
# logger found outside those directories (COMMONL_LOGGER=system) is added
# where it is.
set(_commonl_system_dirs ${CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES} ${CMAKE_PLATFORM_IMPLICIT_LINK_DIRECTORIES})
if(CMAKE_INSTALL_FULL_LIBDIR IN_LIST _commonl_system_dirs)
  set(COMMONL_LIBRARY_RPATH "")
  set(COMMONL_PROGRAM_RPATH "")
else()
  file(RELATIVE_PATH _commonl_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set(COMMONL_LIBRARY_RPATH "$ORIGIN")
  set(COMMONL_PROGRAM_RPATH "$ORIGIN/${_commonl_bin_to_lib}")
endif()
set_target_properties(CommonL PROPERTIES
  INSTALL_RPATH "${COMMONL_LIBRARY_RPATH}"
  INSTALL_RPATH_USE_LINK_PATH ON)

# --- the library, its headers and the logger ---
install(TARGETS CommonL EXPORT CommonLTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/CommonL COMPONENT dev)
if(COMMONL_LOGGER STREQUAL "standin")
  # korvalogger.h is the real logger's header name: it goes where the real
  # one would, not among CommonL's headers.
  install(TARGETS korvalogger-qmt EXPORT CommonLTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT logger)
  install(FILES logger/korvalogger.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT logger)
endif()

# --- find_package(CommonL) ---
set(COMMONL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/CommonL)
if(COMMONL_LOGGER STREQUAL "system")
  get_filename_component(_commonl_logger_libdir "${KORVALOGGER_LIBRARY}" DIRECTORY)
  set(KORVALOGGER_HINTS "${_commonl_logger_libdir};${KORVALOGGER_INCLUDE_DIR}")
endif()
install(EXPORT CommonLTargets NAMESPACE CommonL:: DESTINATION ${COMMONL_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(cmake/CommonLConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/CommonLConfig.cmake
  INSTALL_DESTINATION ${COMMONL_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/CommonLConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/CommonLConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/CommonLConfigVersion.cmake
  cmake/CommonLKorvaLogger.cmake
  DESTINATION ${COMMONL_CMAKE_DIR} COMPONENT dev)

# --- pkg-config: commonl.pc ---
# The prefix is the one of the install itself, which `cmake --install
# --prefix` may choose after configure; so the file is written then.
foreach(_commonl_dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${_commonl_dir}}")
    set(COMMONL_PC_${_commonl_dir} "${CMAKE_INSTALL_${_commonl_dir}}")
  else()
    set(COMMONL_PC_${_commonl_dir} "\${prefix}/${CMAKE_INSTALL_${_commonl_dir}}")
  endif()
endforeach()
set(prefix "@prefix@")
configure_file(cmake/commonl.pc.in ${CMAKE_CURRENT_BINARY_DIR}/commonl.pc.in @ONLY)
unset(prefix)
install(CODE "
  file(READ \"${CMAKE_CURRENT_BINARY_DIR}/commonl.pc.in\" _commonl_pc)
  string(REPLACE \"@prefix@\" \"\${CMAKE_INSTALL_PREFIX}\" _commonl_pc \"\${_commonl_pc}\")
  file(WRITE \"${CMAKE_CURRENT_BINARY_DIR}/commonl.pc\" \"\${_commonl_pc}\")"
  COMPONENT dev)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/commonl.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
