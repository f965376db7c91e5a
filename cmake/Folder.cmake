# orvane_folder(name sources...): the static library of one source folder, named after it.
#
# Includes are written from the project's root ("process/MyProgress.h"). A folder's headers are
# reachable only through a link of that name in a directory that the folder's own target exports,
# so a target sees exactly the folders that it links to, and those that they use in turn.
function(orvane_folder name)
    set(arrow ${CMAKE_BINARY_DIR}/arrows/${name})
    file(MAKE_DIRECTORY ${arrow})
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${arrow}/${name} SYMBOLIC)
    add_library(${name} STATIC ${ARGN})
    target_include_directories(${name} PUBLIC ${arrow})
    if(ORVANE_COVERAGE)
        # A header counts where it is and not where the link to its folder is.
        target_compile_options(${name} PUBLIC -ffile-prefix-map=${arrow}/=${PROJECT_SOURCE_DIR}/)
    endif()
    orvane_target(${name})
endfunction()
