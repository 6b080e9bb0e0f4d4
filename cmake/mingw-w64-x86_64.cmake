# Cross-build of the 64-bit Windows DLL with Debian's mingw-w64 toolchain.
# The compilers of the posix thread model, whose standard library has std::thread, std::mutex and
# std::condition_variable (the test host and its simulated storage use them), linked statically
# so that no program or DLL needs a compiler runtime DLL (libwinpthread among them) beside it.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(QMT_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${QMT_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${QMT_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${QMT_MINGW_PREFIX}-windres)
set(CMAKE_DLLTOOL ${QMT_MINGW_PREFIX}-dlltool)
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -static)
set(CMAKE_FIND_ROOT_PATH /usr/${QMT_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
