# Builds for 64-bit arm on another Debian machine: by the cross compiler, with libraries that lie
# beside the machine's own (dpkg --add-architecture arm64). What runs while building is the machine's.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-gnu) # for Clang, which builds for any machine
if(NOT DEFINED CMAKE_CXX_COMPILER)
    set(CMAKE_CXX_COMPILER ${CMAKE_CXX_COMPILER_TARGET}-g++)
endif()
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${CMAKE_CXX_COMPILER_TARGET}/pkgconfig:/usr/share/pkgconfig)

set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
