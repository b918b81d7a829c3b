# Makes a header of the page: cmake -DFOLDER=... -DOUTPUT=... -P embed.cmake
file(READ "${FOLDER}/page.html" page)
file(READ "${FOLDER}/page.js" script)
file(READ "${FOLDER}/self_test.js" self_test)
string(REPLACE "/*SCRIPT*/\n" "${script}\n${self_test}" page "${page}")
file(WRITE "${OUTPUT}" "// Made by embed.cmake.\n#include <string_view>\n
inline constexpr std::string_view kPage = R\"page(${page})page\";\n")
