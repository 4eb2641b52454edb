# Debian's OpenImageIO package lists /usr/include/opencv4 among the include
# directories of OpenImageIO::OpenImageIO although OpenCV is not a dependency of
# the headers we use and is usually not installed. A non-existent interface
# include directory makes CMake's generate step fail, so drop it here. This file
# is included by our own build and by the installed package configuration.
foreach(_vorel_oiio_target OpenImageIO::OpenImageIO OpenImageIO::OpenImageIO_Util)
    if(TARGET ${_vorel_oiio_target})
        foreach(_vorel_property INTERFACE_INCLUDE_DIRECTORIES INTERFACE_SYSTEM_INCLUDE_DIRECTORIES)
            get_target_property(_vorel_dirs ${_vorel_oiio_target} ${_vorel_property})
            if(_vorel_dirs)
                set(_vorel_existing "")
                foreach(_vorel_dir IN LISTS _vorel_dirs)
                    if(_vorel_dir MATCHES "^\\$<" OR EXISTS "${_vorel_dir}")
                        list(APPEND _vorel_existing "${_vorel_dir}")
                    endif()
                endforeach()
                set_target_properties(${_vorel_oiio_target} PROPERTIES
                    ${_vorel_property} "${_vorel_existing}")
            endif()
        endforeach()
    endif()
endforeach()
unset(_vorel_oiio_target)
unset(_vorel_property)
unset(_vorel_dirs)
unset(_vorel_dir)
unset(_vorel_existing)
