# The linux storage backend finds volumes by filesystem and partition UUID through libblkid.
find_package(PkgConfig REQUIRED)
pkg_check_modules(BLKID REQUIRED IMPORTED_TARGET blkid)
target_link_libraries(qmtwin PRIVATE PkgConfig::BLKID)
