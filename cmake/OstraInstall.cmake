# What find_package(Ostra) finds.
include(CMakePackageConfigHelpers)

set(ostraPackageDir "${CMAKE_INSTALL_LIBDIR}/cmake/Ostra")
configure_package_config_file(
  "${CMAKE_CURRENT_LIST_DIR}/OstraConfig.cmake.in" "${PROJECT_BINARY_DIR}/OstraConfig.cmake"
  INSTALL_DESTINATION "${ostraPackageDir}"
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/OstraConfigVersion.cmake" COMPATIBILITY SameMinorVersion)

install(
  FILES "${PROJECT_BINARY_DIR}/OstraConfig.cmake" "${PROJECT_BINARY_DIR}/OstraConfigVersion.cmake"
  DESTINATION "${ostraPackageDir}"
  COMPONENT Development)
install(
  EXPORT OstraTargets
  NAMESPACE ostra::
  DESTINATION "${ostraPackageDir}"
  COMPONENT Development)
