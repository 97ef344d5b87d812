# cmake -D BUILD=<build tree> -D SOURCE=<this folder> -D COMPILER=<c++> -D FLAGS=<flags> -P run.cmake
# Installs the library into a new prefix, moves that elsewhere, and builds and runs the consumer against it there.

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT status EQUAL 0)
    list(JOIN ARGV " " command)
    file(REMOVE_RECURSE "${work}")
    message(FATAL_ERROR "${command}\n${output}")
  endif()
endfunction()

string(RANDOM LENGTH 12 suffix)
set(work "${BUILD}/consumer-${suffix}")
file(MAKE_DIRECTORY "${work}")

run(${CMAKE_COMMAND} --install "${BUILD}" --prefix "${work}/first" --component library)
file(RENAME "${work}/first" "${work}/prefix")
file(GLOB_RECURSE configs "${work}/prefix/*.pc")
get_filename_component(pc_dir "${configs}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
get_filename_component(lib_dir "${pc_dir}" DIRECTORY)
set(ENV{LD_LIBRARY_PATH} "${lib_dir}")

run(${CMAKE_COMMAND} -S "${SOURCE}" -B "${work}/build" -G Ninja
  -D "CMAKE_PREFIX_PATH=${work}/prefix" -D "INSTALLED=${work}/prefix"
  -D "CMAKE_CXX_COMPILER=${COMPILER}" -D "CMAKE_CXX_FLAGS=${FLAGS}")
run(${CMAKE_COMMAND} --build "${work}/build" -j 2)
run("${work}/build/consumer")
run("${work}/build/consumer_pkgconfig")
file(REMOVE_RECURSE "${work}")
