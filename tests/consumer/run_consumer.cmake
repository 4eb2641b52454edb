# Installs the built project into a fresh prefix, then builds and runs two hosts against that
# prefix alone, without LD_LIBRARY_PATH: the consumer project through find_package, and main.cpp
# compiled with the flags of the pkg-config file. The installed example host must start too.
# Arguments: BUILD_DIR, SOURCE_DIR, WORK_DIR, CXX_FLAGS, HAVE_OPENUSD.
file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")
set(run_env ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH)
if(HAVE_OPENUSD AND CXX_FLAGS)
    # A sanitized host would report OpenUSD's registries, never freed, as leaks at exit.
    list(APPEND run_env ASAN_OPTIONS=detect_leaks=0)
endif()

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}")
    endif()
    message(STATUS "${out}")
endfunction()

# A studio prefix often holds a real OpenUSD already: the stand-in build must leave its headers
# alone, and hosts of the stand-in build must not pick them up instead of the stand-in's.
set(foreign_header "${prefix}/include/pxr/pxr.h")
set(foreign_text "#error \"a foreign OpenUSD header was included\"\n")
if(NOT HAVE_OPENUSD)
    file(WRITE "${foreign_header}" "${foreign_text}")
endif()
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
if(NOT HAVE_OPENUSD)
    file(GLOB_RECURSE pxr_files RELATIVE "${prefix}/include/pxr" "${prefix}/include/pxr/*")
    file(READ "${foreign_header}" text)
    if(NOT pxr_files STREQUAL "pxr.h" OR NOT text STREQUAL foreign_text)
        message(FATAL_ERROR "the install changed ${prefix}/include/pxr: ${pxr_files}")
    endif()
endif()

run(${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${WORK_DIR}/build"
    "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${CXX_FLAGS}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
run(${run_env} "${WORK_DIR}/build/consumer")

find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} "${prefix}/lib/pkgconfig")
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs vorel_usd_image_processing
    OUTPUT_VARIABLE pc_flags OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(cxx_flags UNIX_COMMAND "${CXX_FLAGS}")
find_program(CXX NAMES c++ g++ REQUIRED)
run(${CXX} -std=c++17 ${cxx_flags} "${SOURCE_DIR}/main.cpp" -o "${WORK_DIR}/pc_consumer"
    ${pc_flags} "-Wl,-rpath,${prefix}/lib")
run(${run_env} "${WORK_DIR}/pc_consumer")

if(EXISTS "${prefix}/bin/vorel_image_tool")
    run(${run_env} "${prefix}/bin/vorel_image_tool" --help)
endif()
file(REMOVE_RECURSE "${WORK_DIR}")
