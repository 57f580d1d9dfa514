# Writes TARGET, C++ that holds the page's style and script, and the front's description, as they stand in FOLDER. Their
# text has no ")~".
set(text "// Made by host/http/page/Embed.cmake.\n")
string(APPEND text "#include \"host/http/OpenApi.h\"\n#include \"host/http/Page.h\"\n\nnamespace nphost {\n")
foreach(file "pageStyle style.css" "pageScript app.js" "openApiDocument openapi.json")
  separate_arguments(file)
  list(GET file 0 function)
  list(GET file 1 name)
  file(READ ${FOLDER}/${name} content)
  string(APPEND text "\nstd::string_view ${function}() {\n    return R\"~(${content})~\";\n}\n")
endforeach()
file(WRITE ${TARGET} "${text}\n} // namespace nphost\n")
