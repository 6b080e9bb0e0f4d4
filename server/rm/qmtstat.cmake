# qmtstat: shows the cluster ratio and, per resource of both services, the host's status and the
# plug-in's progress and description from the shared memories; or sets the ratio.
find_package(CLI11 REQUIRED)
find_package(nlohmann_json REQUIRED)
add_executable(qmtstat ${CMAKE_CURRENT_LIST_DIR}/qmtstat.cpp ${CMAKE_CURRENT_LIST_DIR}/qmtrm_posix.cpp)
target_compile_definitions(qmtstat PRIVATE QMTSTAT_VERSION="${PROJECT_VERSION}")
target_link_libraries(qmtstat PRIVATE qmtwin qmtshmcm qmtshmrm qmtrm_board qmtlog CLI11::CLI11 nlohmann_json::nlohmann_json)
