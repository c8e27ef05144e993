# Installs the pkg-config module tarn.pc in the form that suits the prefix being installed to:
# with the library directory as run path in its link flags, or, where that directory is one the
# system searches anyway, without. Runs at install time; TARN_PC_BUILD_DIR, TARN_PC_LIBDIR and
# TARN_SYSTEM_LIBDIRS are set by the install code before it.
set(tarn_libdir "${TARN_PC_LIBDIR}")
if(NOT IS_ABSOLUTE "${tarn_libdir}")
    set(tarn_libdir "${CMAKE_INSTALL_PREFIX}/${tarn_libdir}")
endif()
# The run path is worked out from where pkg-config finds the file, so a staged install (DESTDIR)
# or a moved prefix still names the right directory.
get_filename_component(tarn_libdir "${tarn_libdir}" REALPATH)
set(tarn_variant rpath)
foreach(tarn_dir IN LISTS TARN_SYSTEM_LIBDIRS)
    get_filename_component(tarn_dir "${tarn_dir}" REALPATH)
    if(tarn_dir STREQUAL tarn_libdir)
        set(tarn_variant system)
    endif()
endforeach()
file(INSTALL DESTINATION "${CMAKE_INSTALL_PREFIX}/${TARN_PC_LIBDIR}/pkgconfig" TYPE FILE
     FILES "${TARN_PC_BUILD_DIR}/${tarn_variant}/tarn.pc")
