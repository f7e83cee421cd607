# Cross build for 64-bit Arm with Debian's g++-aarch64-linux-gnu, against a folder of extracted
# arm64 packages (scripts/arm64-sysroot). Pass -DZELK_ARM64_SYSROOT=<folder>.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

if(NOT ZELK_ARM64_SYSROOT)
  message(FATAL_ERROR "Set ZELK_ARM64_SYSROOT to a folder made by scripts/arm64-sysroot")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZELK_ARM64_SYSROOT)

set(CMAKE_FIND_ROOT_PATH ${ZELK_ARM64_SYSROOT} /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The libraries' own dependencies (libbpf's libelf and zlib, libbase's liblog) are found here at
# link time.
foreach(libdir usr/lib/aarch64-linux-gnu usr/lib/aarch64-linux-gnu/android lib/aarch64-linux-gnu)
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${ZELK_ARM64_SYSROOT}/${libdir}")
  string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${ZELK_ARM64_SYSROOT}/${libdir}")
endforeach()

# Linker scripts such as ncurses' libncurses.so name their library (libncurses.so.6) without a
# path; it lives in lib/, which only -L searches.
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -L${ZELK_ARM64_SYSROOT}/lib/aarch64-linux-gnu")
string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -L${ZELK_ARM64_SYSROOT}/lib/aarch64-linux-gnu")

# qemu-user opens absolute paths under -L first, so the library's rpath resolves in the folder.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${ZELK_ARM64_SYSROOT})
