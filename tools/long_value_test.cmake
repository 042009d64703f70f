# Runs kl-msg encode with a string value at and just past the 65535 bytes a wire length can
# carry: the first encodes, the second is refused with one line and a failure status.
#   cmake -DKL_MSG=path/to/kl-msg [-DEMULATOR=...] -P long_value_test.cmake
string(REPEAT "a" 65535 longest)
execute_process(COMMAND ${EMULATOR} ${KL_MSG} encode "string:3=${longest}"
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
string(LENGTH "${out}" size)
# 2 magic + 4 id + 2 length (FFFF) + 65535 bytes, as hex pairs separated by spaces
if(NOT status EQUAL 0 OR NOT size EQUAL 196629 OR NOT out MATCHES "^4D 32 03 00 00 20 FF FF 61 ")
  message(FATAL_ERROR "65535 bytes: status ${status}, ${size} bytes out, error '${err}'")
endif()

foreach(field "string:3=${longest}a" "string[]:3=x,${longest}a")
  execute_process(COMMAND ${EMULATOR} ${KL_MSG} encode ${field}
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(status EQUAL 0 OR NOT out STREQUAL "" OR
     NOT err MATCHES "^kl-msg: value of 'string(\\[\\])?:3' is 65536 bytes, more than the 65535 a message can carry\n$")
    message(FATAL_ERROR "65536 bytes: status ${status}, error '${err}'")
  endif()
endforeach()
