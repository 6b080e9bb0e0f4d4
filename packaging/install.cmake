# Installation as a Debian program (GNU install folders, private libraries, a relocatable
# RUNPATH) and the .deb built by CPack: `cmake --install build` or `cpack` in the build folder.
include(GNUInstallDirs)

# The plug-in and the libraries are private to the programs: one folder of their own, found
# through a RUNPATH relative to the installed file, so the tree works under any prefix.
set(QMT_PKGLIBDIR ${CMAKE_INSTALL_LIBDIR}/qmtsdw)
file(RELATIVE_PATH qmt_bin_to_lib /${CMAKE_INSTALL_BINDIR} /${QMT_PKGLIBDIR})
set(qmt_libraries qmtwin qmtlog qmtxml qmtshmcm qmtshmrm qmtutil qmtsdw)
set_target_properties(qmtrm qmtstat PROPERTIES INSTALL_RPATH "$ORIGIN/${qmt_bin_to_lib}")
set_target_properties(${qmt_libraries} PROPERTIES INSTALL_RPATH "$ORIGIN")
# Where an installed qmtrm finds the plug-in when neither --plugin nor QMT_PLUGIN says.
target_compile_definitions(qmtrm_core PRIVATE QMTRM_INSTALLED_PLUGIN="${qmt_bin_to_lib}/libqmtsdw.so")

install(TARGETS qmtrm qmtstat RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS ${qmt_libraries} LIBRARY DESTINATION ${QMT_PKGLIBDIR})
# Pacemaker looks for OCF agents under /usr/lib/ocf whatever the library folder.
install(PROGRAMS ${PROJECT_SOURCE_DIR}/cluster/ocf/sdw DESTINATION lib/ocf/resource.d/qmt)
configure_file(${CMAKE_CURRENT_LIST_DIR}/qmtsdw.service.in ${CMAKE_BINARY_DIR}/packaging/qmtsdw.service @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/qmtsdw.service DESTINATION lib/systemd/system)
install(FILES ${PROJECT_SOURCE_DIR}/etc/clp.conf DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/etc/policy DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/docs/pacemaker.md ${PROJECT_SOURCE_DIR}/docs/qmtrm.md
              ${PROJECT_SOURCE_DIR}/docs/qmtstat.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

# Manual pages from the programs' --help (help2man), when it is installed.
find_program(HELP2MAN help2man)
if(HELP2MAN)
  set(qmt_man_pages)
  set(qmtrm_summary "resource monitor host of the qmtsdw disk-monitor plug-in")
  set(qmtstat_summary "show the qmtsdw cluster and resource shared memories")
  foreach(prog qmtrm qmtstat)
    set(page ${CMAKE_BINARY_DIR}/packaging/${prog}.1.gz)
    add_custom_command(OUTPUT ${page}
      COMMAND ${HELP2MAN} --no-info --no-discard-stderr --version-string=${PROJECT_VERSION}
              "--name=${${prog}_summary}" --output=${CMAKE_BINARY_DIR}/packaging/${prog}.1 $<TARGET_FILE:${prog}>
      COMMAND gzip -9nf ${CMAKE_BINARY_DIR}/packaging/${prog}.1
      DEPENDS ${prog} VERBATIM)
    list(APPEND qmt_man_pages ${page})
  endforeach()
  add_custom_target(man ALL DEPENDS ${qmt_man_pages})
  install(FILES ${qmt_man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qmtsdw)
set(CPACK_PACKAGE_VENDOR qmtsdw)
set(CPACK_PACKAGE_CONTACT "qmtsdw maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "disk monitor plug-in, its host and a Pacemaker agent for node disk health")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
# dpkg-shlibdeps finds the system libraries' packages; the private ones are ours.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "pacemaker, corosync, resource-agents")
include(CPack)
