# Runs a tool and checks its exit status and output, for tests that need both (CTest's own
# PASS_REGULAR_EXPRESSION ignores the status).
#   cmake -DTOOL=path [-DEMULATOR=cmd] [-DARGS=a|b|c] -DSTATUS=n [-DSTDERR=regex]
#         [-DSTDOUT=regex] [-DNOT_STDOUT=regex] [-DMAKE_DIR=path] -P expect.cmake
# MAKE_DIR is created first (a directory where the tool expects a file).
if(MAKE_DIR)
  file(MAKE_DIRECTORY "${MAKE_DIR}")
endif()
string(REPLACE "|" ";" args "${ARGS}")
execute_process(COMMAND ${EMULATOR} ${TOOL} ${args}
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT status STREQUAL STATUS)
  message(FATAL_ERROR "exit status ${status}, expected ${STATUS}\nstdout: ${out}\nstderr: ${err}")
endif()
if(DEFINED STDERR AND NOT err MATCHES "${STDERR}")
  message(FATAL_ERROR "stderr does not match ${STDERR}:\n${err}")
endif()
if(DEFINED STDOUT AND NOT out MATCHES "${STDOUT}")
  message(FATAL_ERROR "stdout does not match ${STDOUT}:\n${out}")
endif()
if(DEFINED NOT_STDOUT AND out MATCHES "${NOT_STDOUT}")
  message(FATAL_ERROR "stdout matches ${NOT_STDOUT}:\n${out}")
endif()
