# Run by the doc target: runs Doxygen and reports, from its log, the public
# classes that have no description. The members' own gaps are left in the log
# (doxygen.log): most of them are plain accessors that need none.
execute_process(COMMAND ${DOXYGEN} Doxyfile WORKING_DIRECTORY ${DIRECTORY} RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "doxygen failed (see ${DIRECTORY}/doxygen.log)")
endif()
file(STRINGS ${DIRECTORY}/doxygen.log undocumented REGEX "warning: Compound .* is not documented")
foreach(line ${undocumented})
  string(REGEX REPLACE "^(.*): warning: Compound (.*) is not documented.*" "\\1: public class \\2 has no description"
                       line "${line}")
  message(WARNING "${line}")
endforeach()
