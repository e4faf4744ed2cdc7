# Installs the build into a fresh prefix, then builds and runs a C and a C++ consumer against
# it twice: through pkg-config and through find_package(oxa).
# Arguments: -DSOURCE_DIR -DBUILD_DIR -DWORK_DIR, or -DSOURCE_DIR -DDEBS -DWORK_DIR to unpack
# the listed Debian packages (runtime and development) into a scratch root with dpkg -x
# instead, and use its usr/ as the prefix.
if(DEBS)
  set(prefix ${WORK_DIR}/root/usr)
else()
  set(prefix ${WORK_DIR}/prefix)
endif()
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

if(DEBS)
  foreach(deb ${DEBS})
    execute_process(COMMAND dpkg-deb -f ${deb} Package Architecture Depends OUTPUT_VARIABLE fields)
    message(STATUS "${deb}:\n${fields}")
    run(dpkg -x ${deb} ${WORK_DIR}/root)
  endforeach()
  # The library folder is the multiarch one; the development link points at the runtime
  # package's file, named by the library's SONAME.
  execute_process(COMMAND cc -print-multiarch OUTPUT_VARIABLE triplet OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(libdir ${prefix}/lib/${triplet})
  execute_process(COMMAND readelf -d ${libdir}/liboxa.so OUTPUT_VARIABLE dynamic)
  if(NOT dynamic MATCHES "Library soname: \\[(liboxa\\.so\\.[0-9]+)\\]")
    message(FATAL_ERROR "liboxa.so has no SONAME liboxa.so.N:\n${dynamic}")
  endif()
  if(NOT EXISTS ${libdir}/${CMAKE_MATCH_1})
    message(FATAL_ERROR "the packages hold no ${CMAKE_MATCH_1}")
  endif()
else()
  set(libdir ${prefix}/lib)
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
endif()
foreach(header oxa.h oxa_base.h oxa_frame.h)
  if(NOT EXISTS ${prefix}/include/${header})
    message(FATAL_ERROR "${header} not installed in ${prefix}/include")
  endif()
endforeach()

# pkg-config, from C and C++.
set(ENV{PKG_CONFIG_PATH} ${libdir}/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs oxa OUTPUT_VARIABLE flags
                RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not find oxa")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(cc -std=c99 -Wall -Werror ${consumer}/main.c ${flags} -Wl,-rpath,${libdir} -o ${WORK_DIR}/pc_c)
run(c++ -std=c++17 -Wall -Werror ${consumer}/main.cpp ${flags} -Wl,-rpath,${libdir} -o ${WORK_DIR}/pc_cpp)
run(${WORK_DIR}/pc_c)
run(${WORK_DIR}/pc_cpp)

# find_package(oxa), from C and C++.
run(${CMAKE_COMMAND} -S ${consumer} -B ${WORK_DIR}/cmake -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake)
run(${WORK_DIR}/cmake/consumer_c)
run(${WORK_DIR}/cmake/consumer_cpp)
