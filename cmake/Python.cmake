# Decides whether the Python module is built. VOREL_PYTHON AUTO (the default) builds it when a
# Python 3 with NumPy and pybind11 are found, ON requires them, OFF skips it. Builds with a
# sanitizer never build it: a stock interpreter can't load a library that needs the sanitizer's
# runtime. Sets VOREL_HAVE_PYTHON.
set(VOREL_PYTHON AUTO CACHE STRING "Build the Python module: ON, OFF or AUTO (when Python 3, NumPy and pybind11 are found)")
set_property(CACHE VOREL_PYTHON PROPERTY STRINGS AUTO ON OFF)
string(TOUPPER "${VOREL_PYTHON}" _vorel_python)
set(VOREL_HAVE_PYTHON OFF)

if(VOREL_SANITIZE OR VOREL_TSAN OR VOREL_FUZZ)
    if(_vorel_python STREQUAL "ON")
        message(WARNING "VOREL_PYTHON is ignored in sanitizer builds")
    endif()
elseif(NOT _vorel_python STREQUAL "OFF")
    # Debian's interpreter is the one that python3-numpy and pybind11-dev go with; a pyenv or
    # virtualenv python3 ahead of it on PATH usually has neither.
    if(NOT Python3_EXECUTABLE AND EXISTS /usr/bin/python3)
        set(Python3_EXECUTABLE /usr/bin/python3 CACHE FILEPATH "Python 3 interpreter for the Python module")
    endif()
    find_package(Python3 3.7 COMPONENTS Interpreter Development QUIET)
    if(Python3_FOUND)
        find_package(pybind11 CONFIG QUIET)
        execute_process(COMMAND ${Python3_EXECUTABLE} -c "import numpy"
            RESULT_VARIABLE _vorel_numpy_missing OUTPUT_QUIET ERROR_QUIET)
    endif()
    if(Python3_FOUND AND pybind11_FOUND AND NOT _vorel_numpy_missing)
        set(VOREL_HAVE_PYTHON ON)
        message(STATUS "vorel_usd_image_processing: Python module for ${Python3_EXECUTABLE} (${Python3_VERSION})")
    elseif(_vorel_python STREQUAL "ON")
        message(FATAL_ERROR "VOREL_PYTHON is ON but Python 3 with NumPy and pybind11 were not all found "
            "(Debian: python3-dev python3-numpy pybind11-dev)")
    else()
        message(STATUS "vorel_usd_image_processing: no Python module (needs python3-dev, python3-numpy, pybind11-dev)")
    endif()
    unset(_vorel_numpy_missing)
endif()
unset(_vorel_python)
