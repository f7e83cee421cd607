# Checks that Android.bp builds the library and the kernel object from the same sources as the
# CMake build. Run with -DANDROID_BP=<file> -DLIBRARY_SOURCES=<list> -DBPF_SOURCES=<list>, the
# lists relative to the source tree.
file(READ ${ANDROID_BP} bp)

function(srcs_of module out)
  string(REGEX MATCH "${module} {[^}]*}" block "${bp}")
  if(NOT block)
    message(FATAL_ERROR "Android.bp has no ${module} module")
  endif()
  string(REGEX MATCH "srcs: \\[[^]]*\\]" srcs "${block}")
  string(REGEX MATCHALL "\"[^\"]+\"" files "${srcs}")
  list(TRANSFORM files REPLACE "\"" "")
  list(SORT files)
  set(${out} "${files}" PARENT_SCOPE)
endfunction()

function(expect_same what android cmake)
  list(SORT cmake)
  if(NOT android STREQUAL cmake)
    message(FATAL_ERROR "${what} differ:\n  Android.bp: ${android}\n  CMake:      ${cmake}")
  endif()
endfunction()

srcs_of("cc_library_shared" library)
expect_same("library sources" "${library}" "${LIBRARY_SOURCES}")
srcs_of("libbpf_prog" object)
expect_same("kernel object sources" "${object}" "${BPF_SOURCES}")
message(STATUS "Android.bp matches the CMake build")
