# The compiler settings that every target of the project takes by linking orvane::options.

option(ORVANE_HARDENING "Build with link-time optimisation and hardening flags" OFF)
option(ORVANE_SANITIZERS "Build with the address and undefined-behaviour sanitizers" OFF)
option(ORVANE_COVERAGE "Build with line coverage" OFF)

add_library(orvane_options INTERFACE)
add_library(orvane::options ALIAS orvane_options)

# They are errors in the presets for development alone (CMAKE_COMPILE_WARNING_AS_ERROR): a newer
# compiler knows warnings that this one does not.
target_compile_options(orvane_options INTERFACE
    -Wall -Wextra -Wpedantic
    -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-align -Wformat=2
    -Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi)

if(NOT APPLE)
    # Not only for hardening: a reader that is cancelled must not be cut off inside the lazy binding
    # of the calls it makes.
    target_link_options(orvane_options INTERFACE LINKER:-z,now)
endif()

if(ORVANE_HARDENING)
    target_compile_options(orvane_options INTERFACE
        -U_FORTIFY_SOURCE # which some compilers define by themselves
        -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
    if(NOT APPLE)
        target_compile_options(orvane_options INTERFACE -fstack-clash-protection)
        target_link_options(orvane_options INTERFACE LINKER:-z,relro LINKER:--as-needed)
    endif()
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
        target_compile_options(orvane_options INTERFACE -fcf-protection)
    endif()
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND NOT APPLE)
        # GNU ld cannot read Clang's intermediate objects without LLVM's plugin.
        target_link_options(orvane_options INTERFACE -fuse-ld=lld)
    endif()
endif()

if(ORVANE_SANITIZERS)
    target_compile_options(orvane_options INTERFACE
        -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer
        # A reader may still call the sink of a runner that is being destroyed; by design nothing
        # guards that. The check would also need pipes where the tests let none be made.
        -fno-sanitize=vptr
        # A read through a null pointer is an invalid memory access that the address sanitizer
        # reports, and Connect::closeNginx makes one on purpose.
        -fno-sanitize=null)
    target_link_options(orvane_options INTERFACE -fsanitize=address,undefined)
endif()

if(ORVANE_COVERAGE)
    # Without the last switch, the end of a local's life gives the reader's frame landing pads, which
    # a cancelled thread must not meet (process/MyProgress.cpp).
    target_compile_options(orvane_options INTERFACE
        --coverage -fprofile-update=atomic -fstack-reuse=none)
    target_link_options(orvane_options INTERFACE --coverage)
    # GCC writes down what a child has counted before it executes a program, but only where it knows
    # the POSIX functions by their names.
    set(CMAKE_CXX_EXTENSIONS ON)
endif()

# Position-independent code and link-time optimisation are properties of a target in CMake;
# orvane_target() gives them to one.
if(ORVANE_HARDENING)
    include(CheckIPOSupported)
    check_ipo_supported(LANGUAGES CXX) # ends the configuration where there is none
endif()

function(orvane_target target)
    target_link_libraries(${target} PRIVATE orvane::options)
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL EXECUTABLE AND NOT APPLE)
        # With CMake's own -fPIE at the link, link-time optimisation makes copies of the toolkit's
        # data in the executable, which the toolkit's libraries do not look at.
        target_link_options(${target} PRIVATE -fPIC -pie)
    endif()
    if(ORVANE_HARDENING)
        set_target_properties(${target} PROPERTIES INTERPROCEDURAL_OPTIMIZATION ON)
    endif()
endfunction()
