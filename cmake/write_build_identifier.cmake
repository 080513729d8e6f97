# Writes HEADER for the revision checked out in SOURCE_DIR and the flavour of CONFIG.
set(revision 0000000000000000)
execute_process(COMMAND git -C ${SOURCE_DIR} rev-parse HEAD
                OUTPUT_VARIABLE head ERROR_QUIET RESULT_VARIABLE failed)
if(NOT failed)
  string(SUBSTRING "${head}" 0 16 revision)
endif()

if(CONFIG STREQUAL Release OR CONFIG STREQUAL RelWithDebInfo)
  set(flavour production)
else()
  string(TOLOWER "${CONFIG}" flavour)
endif()

if(EXISTS ${HEADER})
  file(READ ${HEADER} present)
  if(present MATCHES "QUORVANE_REVISION \"${revision}\".*@${flavour}\"")
    return()
  endif()
endif()

string(TIMESTAMP moment "%y%m%d:%H%M%S" UTC)
file(WRITE ${HEADER}
     "#pragma once\n\n"
     "#define QUORVANE_REVISION \"${revision}\"\n"
     "#define QUORVANE_BUILD_IDENTIFIER \"${moment} \" QUORVANE_REVISION \"@${flavour}\"\n")
