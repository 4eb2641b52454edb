# Installs the built project into a fresh prefix, then configures, builds and runs the consumer
# project against that prefix alone. Arguments: BUILD_DIR, SOURCE_DIR, WORK_DIR, CXX_FLAGS.
file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}")
    endif()
    message(STATUS "${out}")
endfunction()

run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
run(${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${WORK_DIR}/build"
    "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${CXX_FLAGS}" "-DCMAKE_BUILD_RPATH=${prefix}/lib")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
run("${WORK_DIR}/build/consumer")

find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
    set(ENV{PKG_CONFIG_PATH} "${prefix}/lib/pkgconfig")
    run(${PKG_CONFIG} --cflags --libs vorel_usd_image_processing)
endif()
file(REMOVE_RECURSE "${WORK_DIR}")
