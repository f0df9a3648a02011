# Installs Ostra into a prefix of its own, then builds and runs a project that finds it there.
#
# SOURCE, BUILD    Ostra's source and build folders
# WORK             where to put everything
# COMPILER         the C++ compiler
# PLATFORM         the archive of the platform, to build Ostra once more as an integrator does who
#                  brings the platform; empty to install what BUILD holds

function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ECHO STDOUT RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    list(JOIN ARGV " " command)
    message(FATAL_ERROR "failed: ${command}")
  endif()
endfunction()

set(consumer "${SOURCE}/tests/consumer")
set(prefix "${WORK}/prefix")
set(options -G Ninja "-DCMAKE_CXX_COMPILER=${COMPILER}" "-DCMAKE_PREFIX_PATH=${prefix}"
            --no-warn-unused-cli)
file(REMOVE_RECURSE "${prefix}")

if(PLATFORM)
  set(vendor "${WORK}/vendor")
  file(REMOVE_RECURSE "${vendor}")
  file(COPY "${SOURCE}/platform" DESTINATION "${vendor}/include" FILES_MATCHING PATTERN "*.h")
  file(COPY "${consumer}/VendorPlatformConfig.cmake" DESTINATION "${vendor}")
  file(COPY_FILE "${PLATFORM}" "${vendor}/libvendor-platform.a")
  list(APPEND options "-DVendorPlatform_DIR=${vendor}")

  run("${CMAKE_COMMAND}" -S "${consumer}/integrator" -B "${WORK}/integrator" ${options}
      "-DOSTRA_SOURCE=${SOURCE}" "-DVENDOR=${vendor}" -DCMAKE_CXX_FLAGS=-O0)
  run("${CMAKE_COMMAND}" --build "${WORK}/integrator" --parallel 2)
  set(BUILD "${WORK}/integrator")
endif()

run("${CMAKE_COMMAND}" --install "${BUILD}" --prefix "${prefix}" --component Development)
file(GLOB_RECURSE ours "${prefix}/include/ostra/platform/*" "${prefix}/lib*/libostra-platform*")
if(PLATFORM AND ours)
  message(FATAL_ERROR "an Ostra on another platform installs its own: ${ours}")
endif()

# The consumer includes every header of the library that is installed.
file(GLOB_RECURSE headers RELATIVE "${prefix}/include/ostra" "${prefix}/include/ostra/Ostra/*.h")
if(NOT headers MATCHES "Ostra/Ostra.h" OR headers MATCHES "private/")
  message(FATAL_ERROR "headers for the library's users only are to be installed: ${headers}")
endif()
list(TRANSFORM headers REPLACE "(.+)" "#include \"\\1\"\n")
list(JOIN headers "" includes)
file(WRITE "${WORK}/includes/AllOfOstra.h" "${includes}")

run("${CMAKE_COMMAND}" -S "${consumer}" -B "${WORK}/consumer" ${options}
    "-DCMAKE_CXX_FLAGS=-I${WORK}/includes")
run("${CMAKE_COMMAND}" --build "${WORK}/consumer")
run("${WORK}/consumer/consumer")
