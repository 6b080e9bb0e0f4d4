# qmtstat: shows the cluster ratio and every resource's progress and description from the shared
# memories, or sets the ratio.
find_package(CLI11 REQUIRED)
add_executable(qmtstat ${CMAKE_CURRENT_LIST_DIR}/qmtstat.cpp)
target_link_libraries(qmtstat PRIVATE qmtshmcm qmtshmrm CLI11::CLI11)
