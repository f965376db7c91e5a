# cmake --build --preset release --target package: the packages, in build/release/packages/.

set(ORVANE_DEBIAN_DEPENDS nginx CACHE STRING "Debian packages that the two services take")

set(CPACK_PACKAGE_VENDOR "The Orvane Launcher developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "launcher for the local services of the Orvane video product")
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGE_FILE_NAME
    orvane-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR})
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF) # unpacked, an archive is orvane.app and nothing else
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/Permissions.cmake)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_BINARY_DIR}/Generator.cmake)

if(APPLE)
    set(CPACK_GENERATOR DragNDrop)
    set(CPACK_DMG_VOLUME_NAME "Orvane Launcher ${PROJECT_VERSION}")
else()
    set(CPACK_GENERATOR TGZ DEB)
    set(CPACK_DEBIAN_PACKAGE_NAME ${ORVANE_PACKAGE})
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
    set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${ORVANE_MAINTAINER})
    set(CPACK_DEBIAN_PACKAGE_SECTION video)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    # In a session without X the launcher takes the toolkit's Wayland plugin, without which it ends
    # before its window comes. The toolkit recommends it by way of another package only.
    string(JOIN ", " depends qtwayland5 ${ORVANE_DEBIAN_DEPENDS})
    set(CPACK_DEBIAN_PACKAGE_DEPENDS ${depends})
    set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "firefox-esr | chromium | www-browser")
    set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
        "One button starts the two services that the product needs on this machine,
nginx and an RPC server, another stops them. What each service writes is
shown on a tab of its own. The product itself runs in a web browser, at port
4200 of this machine.")
    set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
        ${CMAKE_CURRENT_BINARY_DIR}/linux/postinst ${CMAKE_CURRENT_BINARY_DIR}/linux/prerm)
    set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
endif()
configure_file(Generator.cmake.in Generator.cmake @ONLY)
include(CPack)
