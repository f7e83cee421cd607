# The platform libraries, as Debian packages them: Android's libbase and liblog live in
# lib/<triplet>/android, BCC's BPF library in lib/<triplet>. Paths are re-rooted under
# CMAKE_SYSROOT when cross-compiling.
set(ZELK_ANDROID_LIBDIR /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)

find_path(ZELK_ANDROID_INCLUDE_DIR android-base/unique_fd.h PATHS /usr/include/android
          NO_DEFAULT_PATH REQUIRED)
find_library(ZELK_LIBBASE base PATHS ${ZELK_ANDROID_LIBDIR} NO_DEFAULT_PATH REQUIRED)
find_library(ZELK_LIBLOG log PATHS ${ZELK_ANDROID_LIBDIR} NO_DEFAULT_PATH REQUIRED)
find_path(ZELK_BCC_INCLUDE_DIR bcc/libbpf.h REQUIRED)
find_library(ZELK_LIBBCC_BPF bcc_bpf REQUIRED)
find_library(ZELK_LIBBPF bpf REQUIRED)
# zelkcputime serve's HTTP server.
find_path(ZELK_MICROHTTPD_INCLUDE_DIR microhttpd.h REQUIRED)
find_library(ZELK_LIBMICROHTTPD microhttpd REQUIRED)

add_library(zelk::android_base UNKNOWN IMPORTED)
set_target_properties(zelk::android_base PROPERTIES
  IMPORTED_LOCATION ${ZELK_LIBBASE}
  INTERFACE_INCLUDE_DIRECTORIES ${ZELK_ANDROID_INCLUDE_DIR})
add_library(zelk::android_log UNKNOWN IMPORTED)
set_target_properties(zelk::android_log PROPERTIES
  IMPORTED_LOCATION ${ZELK_LIBLOG}
  INTERFACE_INCLUDE_DIRECTORIES ${ZELK_ANDROID_INCLUDE_DIR})
# bcc/libbpf.h declares bpf_obj_get, which libbpf defines.
add_library(zelk::bcc_bpf UNKNOWN IMPORTED)
set_target_properties(zelk::bcc_bpf PROPERTIES
  IMPORTED_LOCATION ${ZELK_LIBBCC_BPF}
  INTERFACE_INCLUDE_DIRECTORIES ${ZELK_BCC_INCLUDE_DIR})
add_library(zelk::libbpf UNKNOWN IMPORTED)
set_target_properties(zelk::libbpf PROPERTIES IMPORTED_LOCATION ${ZELK_LIBBPF})
add_library(zelk::microhttpd UNKNOWN IMPORTED)
set_target_properties(zelk::microhttpd PROPERTIES
  IMPORTED_LOCATION ${ZELK_LIBMICROHTTPD}
  INTERFACE_INCLUDE_DIRECTORIES ${ZELK_MICROHTTPD_INCLUDE_DIR})

# zelkcputime serve's web configuration: the YAML reader, GnuTLS for its certificates and
# libcrypt (libxcrypt) for its bcrypt hashes.
find_package(yaml-cpp CONFIG REQUIRED)
find_package(GnuTLS REQUIRED)
find_path(ZELK_CRYPT_INCLUDE_DIR crypt.h REQUIRED)
find_library(ZELK_LIBCRYPT crypt REQUIRED)
add_library(zelk::crypt UNKNOWN IMPORTED)
set_target_properties(zelk::crypt PROPERTIES
  IMPORTED_LOCATION ${ZELK_LIBCRYPT}
  INTERFACE_INCLUDE_DIRECTORIES ${ZELK_CRYPT_INCLUDE_DIR})

# The power profile's XML parser, the platform's own.
find_package(tinyxml2 REQUIRED)

find_package(Threads REQUIRED)
