# quorvane_embed_page(target folder): makes the files of a folder an array in
# generated/web_page_files.inc, which a source of the target includes. The target <target>_page makes
# just that file.
function(quorvane_embed_page target folder)
  cmake_path(ABSOLUTE_PATH folder)
  set(array ${CMAKE_BINARY_DIR}/generated/web_page_files.inc)
  file(GLOB files CONFIGURE_DEPENDS ${folder}/*)
  add_custom_command(
    OUTPUT ${array}
    COMMAND ${CMAKE_COMMAND} -D folder=${folder} -D array=${array}
            -P ${PROJECT_SOURCE_DIR}/cmake/embed_page_files.cmake
    DEPENDS ${files} ${PROJECT_SOURCE_DIR}/cmake/embed_page_files.cmake
    VERBATIM)
  add_custom_target(${target}_page DEPENDS ${array})
  target_sources(${target} PRIVATE ${array})
  target_include_directories(${target} PRIVATE ${CMAKE_BINARY_DIR})
endfunction()
