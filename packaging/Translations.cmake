# cmake --build --preset release --target translations: the translators' template, with every text
# that goes through the toolkit's translation function. It is made afresh, never committed, so it
# cannot fall behind the window's texts.

get_target_property(qmake Qt5::qmake IMPORTED_LOCATION)
get_filename_component(qt_bin ${qmake} DIRECTORY)
find_program(ORVANE_LUPDATE lupdate HINTS ${qt_bin})
mark_as_advanced(ORVANE_LUPDATE)
set(template ${CMAKE_BINARY_DIR}/translations/orvane.ts)
if(ORVANE_LUPDATE)
    add_custom_target(translations
        # lupdate would keep what translators' tools or an earlier version left in an old one.
        COMMAND ${CMAKE_COMMAND} -E remove -f ${template}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/translations
        COMMAND ${ORVANE_LUPDATE} app ui -ts ${template}
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
        VERBATIM)
else()
    add_custom_target(translations
        COMMAND ${CMAKE_COMMAND} -E echo "lupdate is missing: apt-get install qttools5-dev-tools"
        COMMAND ${CMAKE_COMMAND} -E false)
endif()
