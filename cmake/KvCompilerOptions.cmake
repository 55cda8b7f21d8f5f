# Build types and warning policy shared by every target of our own.
#
#   Debug, Release, RelWithDebInfo   the usual
#   Asan                             AddressSanitizer + UndefinedBehaviorSanitizer
#   Tsan                             ThreadSanitizer (for the Qt-free device library)

set(_kv_san_common "-g -O1 -fno-omit-frame-pointer")
set(CMAKE_C_FLAGS_ASAN "${_kv_san_common} -fsanitize=address,undefined -fno-sanitize-recover=undefined"
    CACHE STRING "" FORCE)
set(CMAKE_CXX_FLAGS_ASAN "${CMAKE_C_FLAGS_ASAN}" CACHE STRING "" FORCE)
set(CMAKE_EXE_LINKER_FLAGS_ASAN "-fsanitize=address,undefined" CACHE STRING "" FORCE)
set(CMAKE_SHARED_LINKER_FLAGS_ASAN "-fsanitize=address,undefined" CACHE STRING "" FORCE)
set(CMAKE_MODULE_LINKER_FLAGS_ASAN "-fsanitize=address,undefined" CACHE STRING "" FORCE)
set(CMAKE_C_FLAGS_TSAN "${_kv_san_common} -fsanitize=thread" CACHE STRING "" FORCE)
set(CMAKE_CXX_FLAGS_TSAN "${CMAKE_C_FLAGS_TSAN}" CACHE STRING "" FORCE)
set(CMAKE_EXE_LINKER_FLAGS_TSAN "-fsanitize=thread" CACHE STRING "" FORCE)
set(CMAKE_SHARED_LINKER_FLAGS_TSAN "-fsanitize=thread" CACHE STRING "" FORCE)
set(CMAKE_MODULE_LINKER_FLAGS_TSAN "-fsanitize=thread" CACHE STRING "" FORCE)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()
set_property(CACHE CMAKE_BUILD_TYPE PROPERTY STRINGS Debug Release RelWithDebInfo Asan Tsan)

# Warnings are errors in our own code only; third-party headers come in as SYSTEM.
function(kv_target_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# Every Qt target of ours: no Q_FOREACH, no context-less connections
# (the macro takes effect from Qt 6.7 on; it documents the rule for older Qt).
function(kv_qt_target target)
    kv_target_warnings(${target})
    target_compile_definitions(${target} PRIVATE
        QT_NO_CONTEXTLESS_CONNECT
        QT_NO_FOREACH)
endfunction()

# A static library for one subsystem: src/<name> -> kv_<name>.
function(kv_add_subsystem name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;PUBLIC_LIBS" ${ARGN})
    add_library(kv_${name} STATIC ${ARG_SOURCES})
    target_include_directories(kv_${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(kv_${name} PUBLIC ${ARG_PUBLIC_LIBS} PRIVATE ${ARG_LIBS})
    set_target_properties(kv_${name} PROPERTIES AUTOMOC ON AUTORCC ON)
    kv_qt_target(kv_${name})
endfunction()

# A Qt Test executable run offscreen under ctest.
function(kv_add_qt_test name)
    cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;ENV" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    set_target_properties(${name} PROPERTIES AUTOMOC ON AUTORCC ON)
    target_link_libraries(${name} PRIVATE Qt6::Test ${ARG_LIBS})
    kv_qt_target(${name})
    add_test(NAME ${name} COMMAND ${name})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    # A home of its own: settings files of tests running side by side never meet.
    set(home ${CMAKE_CURRENT_BINARY_DIR}/home/${name})
    file(MAKE_DIRECTORY ${home})
    set_tests_properties(${name} PROPERTIES
        TIMEOUT ${ARG_TIMEOUT}
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;QT_LOGGING_TO_CONSOLE=1;HOME=${home};${ARG_ENV}")
endfunction()

# One Qt Test program per tst_*.cpp of the calling folder, each run offscreen against
# kvsim devices through the harness in tests/kvsim.
function(kv_add_kvsim_qt_tests)
    cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
    find_package(GTest REQUIRED) # the harness reports through it
    file(GLOB tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tst_*.cpp)
    foreach(source ${tests})
        get_filename_component(name ${source} NAME_WE)
        kv_add_qt_test(${name} SOURCES ${source}
            ${CMAKE_SOURCE_DIR}/tests/kvsim/kvsimharness.cpp
            LIBS ${ARG_LIBS} GTest::gtest TIMEOUT 180)
        target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/kvsim)
        target_compile_definitions(${name} PRIVATE KVSIM_BINARY="$<TARGET_FILE:kvsim>")
        add_dependencies(${name} kvsim)
    endforeach()
endfunction()
