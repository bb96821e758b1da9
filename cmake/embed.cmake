# cmake -DOUT=FILE -DIN=FILE;FILE... -DPREFIX=NAME -P embed.cmake: a C++ source with the bytes of each file, as
# PREFIX_FILE_EXT. As numbers: a literal text has a bound.
set(text "// Made of ${IN}.\n#include \"page_files.hpp\"\n\nnamespace linkd\n{\n")
foreach(file IN LISTS IN)
  get_filename_component(name ${file} NAME)
  string(REGEX REPLACE "[^A-Za-z0-9]" "_" name ${name})
  string(TOUPPER "${PREFIX}_${name}" name)
  file(READ ${file} content HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," content "${content}")
  string(APPEND text "static const char ${name}_BYTES[] = {${content}};\n"
                     "const std::string_view ${name}{${name}_BYTES, sizeof ${name}_BYTES};\n")
endforeach()
file(WRITE ${OUT} "${text}} // namespace linkd\n")
