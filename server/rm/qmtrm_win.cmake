# qmtrm.exe: the host on Windows. It loads the plug-in's test variant qmtsdw_seam.dll beside it and
# gives it this process's simulated storage and tick (server/platform/win). The cluster libraries
# come from their DLLs, except the shared memories' administration (the ratio, the list of
# entries), which their DLLs do not export: that code is compiled in and meets the plug-in's
# libraries in the same named mappings.
enable_language(RC)
# CLI11 and nlohmann/json are header-only; their Debian headers serve the cross build as they are.
set(qmtrm_host_headers ${CMAKE_CURRENT_BINARY_DIR}/host-headers)
file(MAKE_DIRECTORY ${qmtrm_host_headers})
foreach(dir CLI nlohmann)
  if(NOT EXISTS ${qmtrm_host_headers}/${dir})
    file(CREATE_LINK /usr/include/${dir} ${qmtrm_host_headers}/${dir} SYMBOLIC)
  endif()
endforeach()
set(shm ${PROJECT_SOURCE_DIR}/server/lib/qmtshm)
add_executable(qmtrm
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_main.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_common.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_check.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_plugin.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_script.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_script_parse.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_run.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_demo.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_engine.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_health.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_board.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_board_win.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_win.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm.rc
  ${PROJECT_SOURCE_DIR}/server/lib/qmtxml/keypath.cpp
  ${shm}/qmtshmcm.cpp ${shm}/qmtshmrm.cpp ${shm}/shm_segment.cpp ${shm}/shm_win.cpp)
# The headers both programs compile against.
set(qmtrm_win_headers ${CMAKE_CURRENT_LIST_DIR} ${PROJECT_SOURCE_DIR}/server/monitor/sdw/include
    ${PROJECT_SOURCE_DIR}/server/platform/include ${shm} ${PROJECT_SOURCE_DIR}/server/lib/common)
target_include_directories(qmtrm PRIVATE ${qmtrm_win_headers} ${PROJECT_SOURCE_DIR}/server/lib/qmtxml)
target_include_directories(qmtrm SYSTEM PRIVATE ${qmtrm_host_headers})
set(QMTRM_BUILD_NUMBER 1 CACHE STRING "Fourth part of qmtrm's version")
target_compile_definitions(qmtrm PRIVATE QMTSHM_BUILDING
  QMTRM_VERSION_MAJOR=${PROJECT_VERSION_MAJOR} QMTRM_VERSION_MINOR=${PROJECT_VERSION_MINOR}
  QMTRM_VERSION_PATCH=${PROJECT_VERSION_PATCH} QMTRM_VERSION_BUILD=${QMTRM_BUILD_NUMBER})
# GCC 12 at -O3 reports "literal + std::string" as overlapping copies (its bug 105329).
target_compile_options(qmtrm PRIVATE -Wno-restrict)
target_link_libraries(qmtrm PRIVATE qmtwin_seam qmtlog qmtxml qmtutil qmt_pugixml)
target_link_options(qmtrm PRIVATE -static-libgcc -static-libstdc++)
# The plug-in is only loaded; building qmtrm builds the one it loads by default.
add_dependencies(qmtrm qmtsdw_seam)

# qmtstat.exe: the viewer, with the shared memories' readers compiled in as qmtrm.exe has them.
add_executable(qmtstat
  ${CMAKE_CURRENT_LIST_DIR}/qmtstat.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_board.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_board_win.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_win.cpp
  ${shm}/qmtshmcm.cpp ${shm}/qmtshmrm.cpp ${shm}/shm_segment.cpp ${shm}/shm_win.cpp)
target_include_directories(qmtstat PRIVATE ${qmtrm_win_headers})
target_include_directories(qmtstat SYSTEM PRIVATE ${qmtrm_host_headers})
target_compile_definitions(qmtstat PRIVATE QMTSHM_BUILDING QMTSTAT_VERSION="${PROJECT_VERSION}")
target_compile_options(qmtstat PRIVATE -Wno-restrict)
target_link_libraries(qmtstat PRIVATE qmtwin_seam qmtlog qmtutil)
target_link_options(qmtstat PRIVATE -static-libgcc -static-libstdc++)
