# A platform that is not Ostra's, as an integrator would package it: headers under include/platform
# and an archive, both beside this file.
include(CMakeFindDependencyMacro)
find_dependency(Threads)

if(NOT TARGET vendor::platform)
  add_library(vendor::platform STATIC IMPORTED)
  set_target_properties(
    vendor::platform
    PROPERTIES IMPORTED_LOCATION "${CMAKE_CURRENT_LIST_DIR}/libvendor-platform.a"
               INTERFACE_INCLUDE_DIRECTORIES "${CMAKE_CURRENT_LIST_DIR}/include"
               INTERFACE_LINK_LIBRARIES "Threads::Threads;rt")
endif()
