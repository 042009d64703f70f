# Compiles the README's examples: the tour with each header the README offers a program (the
# umbrella kl/kl.h and the subsystem header kl/message/message.h, each on its own), and the
# service example as a whole program.
#   cmake -DCXX=compiler -DSOURCE_DIR=dir -DWORK_DIR=dir -P readme_example_test.cmake
file(READ ${SOURCE_DIR}/README.md readme)
string(FIND "${readme}" "```cpp\n#include <iostream>\n#include \"kl/kl.h\"\n" start)
if(start LESS 0)
  message(FATAL_ERROR "README.md has no tour example starting with #include \"kl/kl.h\"")
endif()
string(SUBSTRING "${readme}" ${start} -1 rest)
string(FIND "${rest}" "\n```" end)
string(SUBSTRING "${rest}" 0 ${end} block)
string(REPLACE "```cpp\n#include <iostream>\n#include \"kl/kl.h\"\n" "" statements "${block}")

foreach(header kl/kl.h kl/message/message.h)
  string(MAKE_C_IDENTIFIER ${header} name)
  set(source ${WORK_DIR}/readme_example_${name}.cc)
  file(WRITE ${source}
    "#include <iostream>\n#include \"${header}\"\nint main() {\n${statements}\nreturn 0;\n}\n")
  execute_process(COMMAND ${CXX} -std=c++17 -fsyntax-only -I${SOURCE_DIR} ${source}
    RESULT_VARIABLE status ERROR_VARIABLE err)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "the README example does not compile with only ${header}:\n${err}")
  endif()
endforeach()

# The service example is a whole program: it compiles with kl/kl.h alone.
string(FIND "${readme}" "```cpp\nclass Ports" start)
if(start LESS 0)
  message(FATAL_ERROR "README.md has no service example starting with class Ports")
endif()
string(SUBSTRING "${readme}" ${start} -1 rest)
string(FIND "${rest}" "\n```" end)
string(SUBSTRING "${rest}" 0 ${end} block)
string(REPLACE "```cpp\n" "" program "${block}")
set(source ${WORK_DIR}/readme_service.cc)
file(WRITE ${source} "#include <string>\n#include \"kl/kl.h\"\n${program}\n")
execute_process(COMMAND ${CXX} -std=c++17 -fsyntax-only -I${SOURCE_DIR} ${source}
  RESULT_VARIABLE status ERROR_VARIABLE err)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "the README service example does not compile:\n${err}")
endif()
