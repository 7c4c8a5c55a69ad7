# Runs PYTHON on PROGRAM in an empty DIRECTORY and compares its whole output with the file EXPECTED.
# Only the lines in which the bridge tells where it looked for Python differ between machines.
file(REMOVE_RECURSE ${DIRECTORY})
file(MAKE_DIRECTORY ${DIRECTORY})
set(ENV{QUORVALEN_LOGGING_LEVEL} off)
set(ENV{QUORVALEN_TELEMETRY_FILE} off)
set(ENV{LD_PRELOAD} "${PRELOAD}")
execute_process(COMMAND ${PYTHON} -B ${PROGRAM} WORKING_DIRECTORY ${DIRECTORY}
  OUTPUT_VARIABLE output ERROR_VARIABLE errors RESULT_VARIABLE status)
string(REGEX REPLACE "(Looking for )?Python runtime [^\n]*\n" "" output "${output}")
file(READ ${EXPECTED} expected)
if(NOT status STREQUAL "0" OR NOT output STREQUAL expected OR NOT errors STREQUAL "")
  message(FATAL_ERROR "status ${status}, output:\n${output}\nerrors:\n${errors}\nexpected:\n${expected}")
endif()
