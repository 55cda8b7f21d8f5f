# The device library as shared libraries for other programs (C, Python through ctypes).
#
# The static targets (nvtypes, nivradeviceapi) stay what the application, the tools and the
# tests link: they use internals, and with default visibility kvmanager's -rdynamic call
# stacks keep the names of library functions. The shared ones compile the same sources
# again with hidden visibility, so that only what carries NV_API is exported.

include(GNUInstallDirs)

# The ABI number of both shared libraries: raise it when an exported interface changes
# incompatibly.
set(KV_DEVICE_LIBRARY_SOVERSION 0)

# kv_add_device_shared_library(TARGET OUTPUT_NAME NAME SOURCES ...)
function(kv_add_device_shared_library target)
    cmake_parse_arguments(ARG "" "OUTPUT_NAME" "SOURCES" ${ARGN})
    add_library(${target} SHARED ${ARG_SOURCES})
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME ${ARG_OUTPUT_NAME}
        VERSION ${PROJECT_VERSION}
        SOVERSION ${KV_DEVICE_LIBRARY_SOVERSION}
        C_VISIBILITY_PRESET hidden
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib
        # Installed side by side: libnivradeviceapi finds libnvtypes next to itself.
        INSTALL_RPATH "$ORIGIN")
    # Every symbol resolved at link time (sanitizer runtimes are left to the executable).
    target_link_options(${target} PRIVATE
        $<$<NOT:$<CONFIG:Asan,Tsan>>:LINKER:--no-undefined>)
    kv_target_warnings(${target})
endfunction()

# kv_install_device_library(TARGET HEADERS ... INCLUDE_SUBDIR DIR PKGCONFIG TEMPLATE)
# Installs the shared library (with its SONAME links), its public headers under
# include/DIR and a pkg-config file made from TEMPLATE. The .pc file finds the prefix from
# its own place (${pcfiledir}), so `cmake --install --prefix` and DESTDIR installs work.
function(kv_install_device_library target)
    cmake_parse_arguments(ARG "" "INCLUDE_SUBDIR;PKGCONFIG" "HEADERS" ${ARGN})
    install(TARGETS ${target} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT DeviceLibrary)
    install(FILES ${ARG_HEADERS}
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${ARG_INCLUDE_SUBDIR} COMPONENT DeviceLibrary)

    set(pkgconfigdir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
    if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
        set(PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
        set(PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
    else()
        file(RELATIVE_PATH up "/kvprefix/${pkgconfigdir}" "/kvprefix")
        string(REGEX REPLACE "/$" "" up "${up}")
        set(PC_PREFIX "\${pcfiledir}/${up}")
        set(PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
    endif()
    if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
        set(PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
    else()
        set(PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
    endif()
    get_filename_component(name "${ARG_PKGCONFIG}" NAME_WLE)
    configure_file(${ARG_PKGCONFIG} ${CMAKE_CURRENT_BINARY_DIR}/${name} @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}
        DESTINATION ${pkgconfigdir} COMPONENT DeviceLibrary)
endfunction()
