# cmake --install build/release --prefix P: the bundle P/orvane.app, which runs from wherever it is.

set(app orvane.app)
install(TARGETS orvane DESTINATION ${app}/Contents/MacOS COMPONENT bundle)
install(FILES ${ORVANE_BUNDLE_DIR}/Contents/Info.plist
    DESTINATION ${app}/Contents COMPONENT bundle)
install(FILES ${ORVANE_BUNDLE_DIR}/Contents/Resources/orvane.icns
    DESTINATION ${app}/Contents/Resources COMPONENT bundle)

# From the directory that was staged, without the files that an nginx has written there.
get_filename_component(nginx ${ORVANE_NGINX_DIR} ABSOLUTE) # without a slash at its end
string(REGEX REPLACE "([][+.*()^$?|\\\\])" "\\\\\\1" nginx_pattern "${nginx}")
install(DIRECTORY ${nginx}/ DESTINATION ${app}/nginx COMPONENT bundle
    USE_SOURCE_PERMISSIONS
    REGEX "^${nginx_pattern}/run$" EXCLUDE)

set(rpc_server_dir ${app}/rpcServer/MacOs) # the lower-case s is the launcher's
if(ORVANE_RPC_SERVER)
    install(PROGRAMS ${ORVANE_RPC_SERVER} DESTINATION ${rpc_server_dir} RENAME rpcServer
        COMPONENT bundle)
else()
    install(TARGETS rpcServer DESTINATION ${rpc_server_dir} COMPONENT bundle)
endif()

if(APPLE)
    # The Qt frameworks go into the bundle, so that it runs where Qt is not installed.
    get_target_property(qmake Qt5::qmake IMPORTED_LOCATION)
    get_filename_component(qt_bin ${qmake} DIRECTORY)
    find_program(ORVANE_MACDEPLOYQT macdeployqt HINTS ${qt_bin})
    mark_as_advanced(ORVANE_MACDEPLOYQT)
    install(CODE "
        execute_process(COMMAND \"${ORVANE_MACDEPLOYQT}\"
            \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${app}\" RESULT_VARIABLE status)
        if(NOT status EQUAL 0)
            message(FATAL_ERROR \"macdeployqt failed: \${status}\")
        endif()" COMPONENT bundle)
endif()
