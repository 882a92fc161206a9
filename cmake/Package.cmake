# What is installed: the library, its public headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS reflectorb EXPORT ReflectORB LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
foreach(folder platform threads rmi orb reflection objects observation)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/${folder} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/reflectorb
    FILES_MATCHING PATTERN "*.h" PATTERN "*_p.h" EXCLUDE PATTERN "posix" EXCLUDE PATTERN "transport" EXCLUDE)
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ReflectORB)
install(EXPORT ReflectORB NAMESPACE ReflectORB:: FILE ReflectORBTargets.cmake DESTINATION ${package_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ReflectORBConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ReflectORBConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ReflectORBConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ReflectORBConfig.cmake ${PROJECT_BINARY_DIR}/ReflectORBConfigVersion.cmake
  DESTINATION ${package_dir})

# Written at installation, which may go to another prefix than the configured one.
install(CODE "
  set(CMAKE_INSTALL_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(CMAKE_INSTALL_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  set(PROJECT_DESCRIPTION \"${PROJECT_DESCRIPTION}\")
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/reflectorb.pc.in\" \"${PROJECT_BINARY_DIR}/reflectorb.pc\" @ONLY)")
install(FILES ${PROJECT_BINARY_DIR}/reflectorb.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
