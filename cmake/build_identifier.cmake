# quorvane_build_identifier: gives a target build_identifier.h, the text that tells one build
# from another,
#   YYMMDD:HHMMSS RRRRRRRRRRRRRRRR@flavour
# with the first 16 digits of the source revision. The header is written again
# only when the revision or the flavour changes, so that an unchanged tree is not
# compiled anew; SOURCE_DATE_EPOCH fixes the time for a reproducible build.
set(identifier_header ${PROJECT_BINARY_DIR}/generated/build_identifier.h)
add_custom_target(build_identifier
  COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${PROJECT_SOURCE_DIR} -DHEADER=${identifier_header}
          -DCONFIG=$<CONFIG> -P ${PROJECT_SOURCE_DIR}/cmake/write_build_identifier.cmake
  BYPRODUCTS ${identifier_header}
  VERBATIM)

add_library(quorvane_build_identifier INTERFACE)
add_dependencies(quorvane_build_identifier build_identifier)
target_include_directories(quorvane_build_identifier INTERFACE ${PROJECT_BINARY_DIR}/generated)
