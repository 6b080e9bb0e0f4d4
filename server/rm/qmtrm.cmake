# qmtrm: the resource monitor host. It loads the plug-in at run time (LoadLibraryA over dlopen) and links the
# platform and cluster libraries itself, so both share one process state (sim storage, ticks,
# shared memory, configuration store).
find_package(CLI11 CONFIG QUIET)
find_package(pugixml REQUIRED)
find_package(nlohmann_json REQUIRED)
# The host's status board in shared memory, written by qmtrm and read by qmtstat.
add_library(qmtrm_board STATIC ${CMAKE_CURRENT_LIST_DIR}/qmtrm_board.cpp ${CMAKE_CURRENT_LIST_DIR}/qmtrm_board_posix.cpp)
target_include_directories(qmtrm_board PUBLIC ${CMAKE_CURRENT_LIST_DIR}
  ${PROJECT_SOURCE_DIR}/server/monitor/sdw/include ${PROJECT_SOURCE_DIR}/server/platform/include)
target_link_libraries(qmtrm_board PUBLIC qmtutil)

# Everything but main() and the version resource, so tests can drive the engine with a fake plug-in.
add_library(qmtrm_core STATIC
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_common.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_check.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_plugin.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_posix.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_engine.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_run.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_supervise.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_health.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_script.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_script_parse.cpp
  # The configuration store's key paths, for the script's `conf` lines.
  ${PROJECT_SOURCE_DIR}/server/lib/qmtxml/keypath.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qmtrm_demo.cpp)
target_include_directories(qmtrm_core PUBLIC
  ${CMAKE_CURRENT_LIST_DIR}
  ${PROJECT_SOURCE_DIR}/server/monitor/sdw/include
  ${PROJECT_SOURCE_DIR}/server/platform/include
  ${PROJECT_SOURCE_DIR}/server/lib/qmtshm
  ${PROJECT_SOURCE_DIR}/server/lib/qmtxml)
target_link_libraries(qmtrm_core PUBLIC qmtwin qmtlog qmtxml qmtshmcm qmtshmrm qmtutil qmtrm_board
  nlohmann_json::nlohmann_json pugixml::pugixml Threads::Threads ${CMAKE_DL_LIBS})
if(TARGET CLI11::CLI11)
  target_link_libraries(qmtrm_core PUBLIC CLI11::CLI11)
endif()

add_executable(qmtrm ${CMAKE_CURRENT_LIST_DIR}/qmtrm_main.cpp ${CMAKE_CURRENT_LIST_DIR}/qmtrm_version.cpp)
# The project's version, with the build number as the fourth part.
set(QMTRM_BUILD_NUMBER 1 CACHE STRING "Fourth part of qmtrm's version")
target_compile_definitions(qmtrm PRIVATE
  QMTRM_VERSION_MAJOR=${PROJECT_VERSION_MAJOR} QMTRM_VERSION_MINOR=${PROJECT_VERSION_MINOR}
  QMTRM_VERSION_PATCH=${PROJECT_VERSION_PATCH} QMTRM_VERSION_BUILD=${QMTRM_BUILD_NUMBER})
target_link_libraries(qmtrm PRIVATE qmtrm_core)
# The plug-in is not linked, only loaded; building qmtrm builds it too so the default path works.
if(TARGET qmtsdw)
  add_dependencies(qmtrm qmtsdw)
endif()
