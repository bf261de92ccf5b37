# Runs one fuzz target as a test: FUZZER over the seeds in CORPUS for RUNS inputs from a fixed seed.
# libFuzzer writes each input it finds into its first corpus directory, so a scratch directory in WORK
# goes first and the seeds in the source tree stay as they are. A finding makes libFuzzer exit non-zero,
# which fails the test; the input that triggered it is left in WORK.
file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}/corpus")
set(dirs "${WORK}/corpus")
if(IS_DIRECTORY "${CORPUS}")
  list(APPEND dirs "${CORPUS}")
endif()
execute_process(COMMAND "${FUZZER}" -runs=${RUNS} -seed=1 -rss_limit_mb=2048 "-artifact_prefix=${WORK}/"
                        ${dirs}
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  file(GLOB found "${WORK}/crash-*" "${WORK}/leak-*" "${WORK}/timeout-*" "${WORK}/oom-*")
  message(FATAL_ERROR "${FUZZER} exited with ${rc}; input: ${found}")
endif()
