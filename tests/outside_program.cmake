# Builds a program the way a service outside the project would, with the compiler alone, the
# source tree's headers and the built static libraries, and runs it in a copy of the shipped home
# with a scratch directory as its one argument; the test fails when either step does. Lists come
# separated by "|":
#   cmake -DCXX=... -DFLAGS=... -DINCLUDE=... -DSOURCE=... -DLIBS=... -DOUT=... -DHOME=... -P outside_program.cmake
string(REPLACE "|" ";" flags "${FLAGS}")
string(REPLACE "|" ";" libs "${LIBS}")
execute_process(
  COMMAND ${CXX} ${flags} -I${INCLUDE} ${SOURCE} -o ${OUT} -Wl,--start-group ${libs} -Wl,--end-group -lpthread
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "building ${SOURCE} from outside failed:\n${out}")
endif()
set(run ${OUT}.run)
file(REMOVE_RECURSE ${run})
file(MAKE_DIRECTORY ${run})
file(COPY ${HOME} DESTINATION ${run})
get_filename_component(homeName ${HOME} NAME)
set(ENV{ZEL_VYN_HOME} ${run}/${homeName})
execute_process(COMMAND ${OUT} ${run} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
file(REMOVE_RECURSE ${run})
message("${out}")
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${OUT} ended with ${rc}")
endif()
