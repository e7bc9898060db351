# One seeded fuzz run: a fresh working corpus, the checked-in seeds, a fixed random seed.
#   cmake -DFUZZER=<program> -DSEEDS=<dir> -DWORK=<dir> -DSECONDS=<n> -P run_fuzzer.cmake
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
set(seed_dirs)
if(IS_DIRECTORY ${SEEDS})
  set(seed_dirs ${SEEDS})
endif()
execute_process(
  COMMAND ${FUZZER} -seed=1 -max_total_time=${SECONDS} -max_len=4096 -timeout=30
          -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix=${WORK}/ ${WORK} ${seed_dirs}
  RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${FUZZER} failed (${rc}); the input is in ${WORK}/")
endif()
