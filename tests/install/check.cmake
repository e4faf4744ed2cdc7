# Installs the build into a fresh prefix, then builds and runs a C and a C++ consumer against
# it twice: through pkg-config and through find_package(oxa).
# Arguments: -DSOURCE_DIR -DBUILD_DIR -DWORK_DIR
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
set(consumer ${SOURCE_DIR}/tests/install/consumer)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "${out}")
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(header oxa.h oxa_base.h oxa_frame.h)
  if(NOT EXISTS ${prefix}/include/${header})
    message(FATAL_ERROR "${header} not installed in ${prefix}/include")
  endif()
endforeach()

# pkg-config, from C and C++.
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs oxa OUTPUT_VARIABLE flags
                RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not find oxa")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(cc -std=c99 -Wall -Werror ${consumer}/main.c ${flags} -Wl,-rpath,${prefix}/lib -o ${WORK_DIR}/pc_c)
run(c++ -std=c++17 -Wall -Werror ${consumer}/main.cpp ${flags} -Wl,-rpath,${prefix}/lib -o ${WORK_DIR}/pc_cpp)
run(${WORK_DIR}/pc_c)
run(${WORK_DIR}/pc_cpp)

# find_package(oxa), from C and C++.
run(${CMAKE_COMMAND} -S ${consumer} -B ${WORK_DIR}/cmake -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake)
run(${WORK_DIR}/cmake/consumer_c)
run(${WORK_DIR}/cmake/consumer_cpp)
