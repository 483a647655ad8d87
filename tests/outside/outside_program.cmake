# Builds a program the way a service outside the project would, with the compiler alone, the
# source tree's headers and the built static libraries, and runs it in a fresh copy of the shipped
# home, whose path is its one argument. A CHECK script, when given, then reads what the run left
# in that home (its variable `home`). Lists come separated by "|":
#   cmake -DCXX=... -DFLAGS=... -DINCLUDE=... -DSOURCE=... -DLIBS=... -DOUT=... -DHOME=... [-DCHECK=...] -P outside_program.cmake
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
file(COPY ${HOME}/ DESTINATION ${run}/home)
set(home ${run}/home)
# The copy starts with no trace of earlier runs.
file(GLOB old ${home}/log/*.trc* ${home}/log/alert.log)
if(old)
  file(REMOVE ${old})
endif()
set(ENV{ZEL_VYN_HOME} ${home})
execute_process(COMMAND ${OUT} ${home} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
message("${out}")
if(NOT rc EQUAL 0)
  file(REMOVE_RECURSE ${run})
  message(FATAL_ERROR "${OUT} ended with ${rc}")
endif()
if(CHECK)
  include(${CHECK})
endif()
file(REMOVE_RECURSE ${run})
