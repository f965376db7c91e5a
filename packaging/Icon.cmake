# Renders orvane.svg: PNG files for Linux desktops in icons/, and the bundle's orvane.icns.

find_program(ORVANE_RSVG_CONVERT rsvg-convert)
if(APPLE)
    find_program(ORVANE_ICNS_MAKER iconutil)
    set(librsvg "brew install librsvg")
else()
    find_program(ORVANE_ICNS_MAKER png2icns)
    set(librsvg "apt-get install librsvg2-bin icnsutils")
endif()
mark_as_advanced(ORVANE_RSVG_CONVERT ORVANE_ICNS_MAKER)
if(NOT ORVANE_RSVG_CONVERT OR NOT ORVANE_ICNS_MAKER)
    message(FATAL_ERROR "The icon cannot be rendered. Install what does it: ${librsvg}")
endif()

set(svg ${CMAKE_CURRENT_SOURCE_DIR}/orvane.svg)
set(icon_sizes 16 22 24 32 48 64 128 256 512) # of a Linux desktop, in pixels
foreach(size IN LISTS icon_sizes ITEMS 1024)
    set(png ${CMAKE_CURRENT_BINARY_DIR}/icons/${size}.png)
    add_custom_command(OUTPUT ${png}
        COMMAND ${ORVANE_RSVG_CONVERT} --width ${size} --height ${size} --output ${png} ${svg}
        DEPENDS ${svg}
        VERBATIM)
    list(APPEND pngs ${png})
endforeach()
file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/icons)

set(icns ${ORVANE_BUNDLE_DIR}/Contents/Resources/orvane.icns)
file(MAKE_DIRECTORY ${ORVANE_BUNDLE_DIR}/Contents/Resources)
if(APPLE)
    # iconutil takes a folder of files with set names; "@2x" is the double-density one.
    set(iconset ${CMAKE_CURRENT_BINARY_DIR}/orvane.iconset)
    set(copies COMMAND ${CMAKE_COMMAND} -E make_directory ${iconset})
    foreach(size IN ITEMS 16 32 128 256 512)
        math(EXPR double "2 * ${size}")
        list(APPEND copies
            COMMAND ${CMAKE_COMMAND} -E copy icons/${size}.png ${iconset}/icon_${size}x${size}.png
            COMMAND ${CMAKE_COMMAND} -E copy icons/${double}.png
                ${iconset}/icon_${size}x${size}@2x.png)
    endforeach()
    set(make_icns ${ORVANE_ICNS_MAKER} --convert icns --output ${icns} ${iconset})
else()
    set(make_icns ${ORVANE_ICNS_MAKER} ${icns}
        icons/16.png icons/32.png icons/48.png icons/128.png icons/256.png icons/512.png
        icons/1024.png)
endif()
add_custom_command(OUTPUT ${icns}
    ${copies}
    COMMAND ${make_icns}
    DEPENDS ${pngs}
    WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
    COMMENT "Rendering the icon"
    VERBATIM)
add_custom_target(icon ALL DEPENDS ${icns} ${pngs})
