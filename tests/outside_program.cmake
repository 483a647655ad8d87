# Builds a program the way a service outside the project would, with the compiler alone, the
# source tree's headers and the built static libraries, and runs it; the test fails when either
# step does. Lists come separated by "|":
#   cmake -DCXX=... -DFLAGS=... -DINCLUDE=... -DSOURCE=... -DLIBS=... -DOUT=... -DARG=... -P outside_program.cmake
string(REPLACE "|" ";" flags "${FLAGS}")
string(REPLACE "|" ";" libs "${LIBS}")
execute_process(
  COMMAND ${CXX} ${flags} -I${INCLUDE} ${SOURCE} -o ${OUT} -Wl,--start-group ${libs} -Wl,--end-group -lpthread
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "building ${SOURCE} from outside failed:\n${out}")
endif()
execute_process(COMMAND ${OUT} ${ARG} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
message("${out}")
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${OUT} ended with ${rc}")
endif()
