# How every target of the project is compiled.

# ostra_target(<target>)
#   The language level, the warnings and the sanitizers of a library or a program.
function(ostra_target target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON)

  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
                                           $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
  if(OSTRA_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()

  if(OSTRA_SANITIZE)
    target_compile_options(
      ${target} PRIVATE -fsanitize=${OSTRA_SANITIZE} -fno-sanitize-recover=all
                        -fno-omit-frame-pointer)
    # Public: whoever links an instrumented archive needs the run-time library.
    target_link_options(${target} PUBLIC -fsanitize=${OSTRA_SANITIZE})
  endif()
endfunction()

# ostra_library(<target> <folder> <sources>...)
#   A library that is installed and exported as ostra::<folder in lower case>. Its headers are
#   included as "<folder>/...", in this tree and when installed. Those below a folder "private" are
#   not installed.
function(ostra_library target folder)
  string(TOLOWER "${folder}" name)
  add_library(${target} ${ARGN})
  add_library(ostra::${name} ALIAS ${target})
  ostra_target(${target})
  set_target_properties(
    ${target} PROPERTIES EXPORT_NAME ${name} VERSION ${PROJECT_VERSION}
                         SOVERSION ${PROJECT_VERSION_MAJOR})

  set(root "${PROJECT_SOURCE_DIR}")
  if(NOT OSTRA_OWN_PLATFORM)
    # With the project's root on the include path, a header that the integrator's platform lacks
    # would be found in this tree instead of being reported.
    set(root "${CMAKE_CURRENT_BINARY_DIR}/include")
    file(MAKE_DIRECTORY "${root}")
    file(CREATE_LINK "${CMAKE_CURRENT_SOURCE_DIR}" "${root}/${folder}" SYMBOLIC)
  endif()
  target_include_directories(
    ${target} PUBLIC "$<BUILD_INTERFACE:${root}>"
                     "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/ostra>")

  install(TARGETS ${target} EXPORT OstraTargets COMPONENT Development)
  install(
    DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/ostra"
    COMPONENT Development
    FILES_MATCHING
    PATTERN "*.h"
    PATTERN "private" EXCLUDE)
endfunction()

# ostra_program(<target> <sources>...)
function(ostra_program target)
  add_executable(${target} ${ARGN})
  ostra_target(${target})
endfunction()

# ostra_sources(<out> <pattern>...)
#   The sources below the current folder that match. A new file is noticed by the next build.
function(ostra_sources out)
  list(TRANSFORM ARGN PREPEND "${CMAKE_CURRENT_SOURCE_DIR}/")
  file(GLOB sources CONFIGURE_DEPENDS ${ARGN})
  set(${out} "${sources}" PARENT_SCOPE)
endfunction()
