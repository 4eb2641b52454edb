# Chooses where the OpenUSD names used by the library (HioImage, HioFormat,
# HioGetDataSizeOfFormat, HgiFormat) come from: a real OpenUSD found through
# find_package(pxr), or our small stand-in under usd/stand_in. Sets
# VOREL_USD_TARGETS to the targets the library links and VOREL_HAVE_OPENUSD.
string(TOUPPER "${VOREL_OPENUSD}" _vorel_openusd)
set(VOREL_HAVE_OPENUSD OFF)
if(_vorel_openusd STREQUAL "ON" OR _vorel_openusd STREQUAL "AUTO")
    find_package(pxr CONFIG QUIET)
    if(pxr_FOUND)
        set(VOREL_HAVE_OPENUSD ON)
    elseif(_vorel_openusd STREQUAL "ON")
        message(FATAL_ERROR
            "VOREL_OPENUSD is ON but no OpenUSD was found by find_package(pxr CONFIG). "
            "Set pxr_DIR (or CMAKE_PREFIX_PATH) to an OpenUSD install, or use -DVOREL_OPENUSD=AUTO/OFF "
            "to build against the bundled stand-in.")
    endif()
elseif(NOT _vorel_openusd STREQUAL "OFF")
    message(FATAL_ERROR "VOREL_OPENUSD must be AUTO, ON or OFF, not '${VOREL_OPENUSD}'")
endif()

if(VOREL_HAVE_OPENUSD)
    message(STATUS "vorel_usd_image_processing: using OpenUSD from ${pxr_DIR}")
    set(VOREL_USD_TARGETS hio hgi)
    # OpenUSD usually lives outside the system's library path: installed libraries and programs
    # carry its library directory in their run path, and so do pkg-config hosts.
    get_target_property(_vorel_hio_location hio LOCATION)
    get_filename_component(VOREL_OPENUSD_LIBDIR "${_vorel_hio_location}" DIRECTORY)
    list(APPEND CMAKE_INSTALL_RPATH "${VOREL_OPENUSD_LIBDIR}")
    list(TRANSFORM PXR_INCLUDE_DIRS PREPEND "-I" OUTPUT_VARIABLE VOREL_PC_USD_CFLAGS)
    list(JOIN VOREL_PC_USD_CFLAGS " " VOREL_PC_USD_CFLAGS)
    set(VOREL_PC_USD_LIBS
        "-L${VOREL_OPENUSD_LIBDIR} -Wl,-rpath,${VOREL_OPENUSD_LIBDIR} -lusd_hio -lusd_hgi")
    unset(_vorel_hio_location)
else()
    message(STATUS "vorel_usd_image_processing: using the bundled OpenUSD stand-in")
    add_subdirectory(${PROJECT_SOURCE_DIR}/usd/stand_in)
    set(VOREL_USD_TARGETS vorel::usd_stand_in)
    set(VOREL_PC_USD_CFLAGS "-I\${includedir}/vorel/usd_stand_in")
    set(VOREL_PC_USD_LIBS "-lvorel_usd_stand_in")
endif()
unset(_vorel_openusd)
