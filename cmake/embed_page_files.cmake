# A script: writes the files of `folder` into `array`, as C++.
file(GLOB files ${folder}/*)
list(SORT files)
set(bytes)
set(entries)
set(number 0)
foreach(file IN LISTS files)
  get_filename_component(name ${file} NAME)
  file(READ ${file} digits HEX)
  string(REGEX REPLACE "(..)" "0x\\1," digits "${digits}")
  string(REGEX REPLACE "(................................................................................)"
         "\\1\n    " digits "${digits}")
  string(APPEND bytes "constexpr unsigned char FILE_${number}[] = {\n    ${digits}0};\n")
  string(APPEND entries
         "    {\"${name}\",\n     {reinterpret_cast<const char*>(FILE_${number}), sizeof FILE_${number} - 1}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${array}
     "// Made by the build.\n${bytes}const PageFile PAGE_FILES[] = {\n${entries}};\n")
