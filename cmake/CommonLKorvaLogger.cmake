# Finds an installed logger, libkorvalogger-qmt.so with korvalogger.h, and
# makes it the imported target CommonL::korvalogger-qmt. Used by the build
# with COMMONL_LOGGER=system and by the installed CommonLConfig.cmake of such
# a build, so that an application finds the logger the way CommonL did.
# KORVALOGGER_HINTS: directories to look in first. Sets KORVALOGGER_FOUND.
find_library(KORVALOGGER_LIBRARY korvalogger-qmt HINTS ${KORVALOGGER_HINTS})
find_path(KORVALOGGER_INCLUDE_DIR korvalogger.h HINTS ${KORVALOGGER_HINTS})
if(KORVALOGGER_LIBRARY AND KORVALOGGER_INCLUDE_DIR)
  set(KORVALOGGER_FOUND TRUE)
  if(NOT TARGET CommonL::korvalogger-qmt)
    add_library(CommonL::korvalogger-qmt SHARED IMPORTED)
    set_target_properties(CommonL::korvalogger-qmt PROPERTIES
      IMPORTED_LOCATION "${KORVALOGGER_LIBRARY}"
      INTERFACE_INCLUDE_DIRECTORIES "${KORVALOGGER_INCLUDE_DIR}")
  endif()
else()
  set(KORVALOGGER_FOUND FALSE)
endif()
