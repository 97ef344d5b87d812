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

# Each with a service of its own, found from the library's place, then from the program's alone.
set(ENV{QN_TRANSFERD})
set(ENV{QN_STATE_DIR} "${work}/state")
set(ENV{QN_TRANSFERD_IDLE_MS} 300)
set(ENV{XDG_RUNTIME_DIR} "${work}/run1")
run("${work}/build/consumer")
file(COPY "${lib_dir}/" DESTINATION "${work}/elsewhere/lib")
file(COPY "${work}/build/consumer" DESTINATION "${work}/prefix/bin")
set(ENV{LD_LIBRARY_PATH} "${work}/elsewhere/lib")
set(ENV{XDG_RUNTIME_DIR} "${work}/run2")
run("${work}/prefix/bin/consumer")
set(ENV{LD_LIBRARY_PATH} "${lib_dir}")
run("${work}/build/consumer_pkgconfig")

find_program(analyze systemd-analyze)
if(analyze)
  # As installed there: the unit names that place.
  run(${CMAKE_COMMAND} --install "${BUILD}" --prefix "${work}/units" --component library)
  set(units "${work}/units/lib/systemd/user")
  run(${analyze} verify --user --man=no "${units}/qn-transferd.service" "${units}/qn-transferd.socket")
endif()
file(REMOVE_RECURSE "${work}")
