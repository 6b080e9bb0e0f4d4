# Builds the fuzz targets with clang and runs each for a while.
# cmake -DSRC=<fuzz folder> -DBIN=<build folder> -DCXX=<clang++> -DSECONDS=20 -DSEEDS=<etc folder> -P run_fuzz.cmake
foreach(v SRC BIN CXX SECONDS SEEDS)
  if(NOT DEFINED ${v})
    message(FATAL_ERROR "run_fuzz.cmake: ${v} not given")
  endif()
endforeach()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SRC} -B ${BIN} -G Ninja -DCMAKE_CXX_COMPILER=${CXX}
                        -DCMAKE_BUILD_TYPE=RelWithDebInfo
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "configuring the fuzz targets failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${BIN} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "building the fuzz targets failed")
endif()
# Seeds: the example documents for the loader, the keys they answer for the resolver.
file(MAKE_DIRECTORY ${BIN}/corpus_loader ${BIN}/corpus_keypath)
file(GLOB_RECURSE docs ${SEEDS}/*.conf ${SEEDS}/*.xml)
file(COPY ${docs} DESTINATION ${BIN}/corpus_loader)
set(i 0)
foreach(k "/root/monitor/sdw@a/t" "/root/monitor/sdw@x'y/t" "/root/monitor/sdw@a@b/t"
          "/root/server@node1/device@0/info" "/root//x" "/root/monitor/sdw@/t")
  file(WRITE ${BIN}/corpus_keypath/seed${i} "${k}")
  math(EXPR i "${i} + 1")
endforeach()
# The description parser starts from a description that uses every statement.
file(MAKE_DIRECTORY ${BIN}/corpus_sim ${BIN}/corpus_xml_api ${BIN}/corpus_shm_reader)
file(WRITE ${BIN}/corpus_sim/seed0 "# disks\nvolume {6F1C2D3E-0000-4000-8000-000000000001} disks 0 1 2\n"
     "volume 6f1c2d3e-0000-4000-8000-000000000002 extents-error 1\nvolume 6f1c2d3e-0000-4000-8000-000000000002 remove\n"
     "disk 0 ok\ndisk 1 delay 1500\ndisk 2 refuse 21\ndisk 3 fail 1117 after 200\ndisk 4 hang\ndisk 6 stuck\n"
     "disk 5 openfail 2\nrelease 4 31\nreset\r\n")
# The script parser starts from the example scripts.
file(MAKE_DIRECTORY ${BIN}/corpus_script)
file(GLOB scripts ${SRC}/../tests/host/scripts/*.qmt)
file(COPY ${scripts} DESTINATION ${BIN}/corpus_script)
foreach(t keypath loader xml_api sim shm_reader script)
  execute_process(COMMAND ${BIN}/fuzz_${t} -max_total_time=${SECONDS} -print_final_stats=1
                          -artifact_prefix=${BIN}/crash_${t}_ ${BIN}/corpus_${t}
                  RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "fuzz_${t} found a failure (artifacts under ${BIN})")
  endif()
endforeach()
