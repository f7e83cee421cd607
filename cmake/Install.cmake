# cmake --install: the versioned library, its header, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

set(ZELK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zelkcpufreqtime)
install(TARGETS zelkcpufreqtime EXPORT zelkcpufreqtimeTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/zelkcpufreqtime.h
  ${PROJECT_SOURCE_DIR}/include/zelkcpufreqtime_overflow.h
  ${PROJECT_SOURCE_DIR}/include/zelkcpufreqtime_energy.h
  ${PROJECT_SOURCE_DIR}/include/zelkcpufreqtime_class_time.h
  ${PROJECT_SOURCE_DIR}/include/zelkcpufreqtime_policies.h
  ${PROJECT_SOURCE_DIR}/include/zelkcpufreqtime_settle.h
  ${PROJECT_SOURCE_DIR}/include/zelkcpufreqtime_cgroups.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT zelkcpufreqtimeTargets NAMESPACE zelkcpufreqtime::
  DESTINATION ${ZELK_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zelkcpufreqtimeConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zelkcpufreqtimeConfig.cmake INSTALL_DESTINATION ${ZELK_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zelkcpufreqtimeConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zelkcpufreqtimeConfig.cmake
  ${PROJECT_BINARY_DIR}/zelkcpufreqtimeConfigVersion.cmake DESTINATION ${ZELK_CMAKE_DIR})
configure_file(${PROJECT_SOURCE_DIR}/cmake/zelkcpufreqtime.pc.in
  ${PROJECT_BINARY_DIR}/zelkcpufreqtime.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zelkcpufreqtime.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
