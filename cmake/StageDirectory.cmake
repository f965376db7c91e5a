# cmake -DFROM=... -DTO=... -DSTAGED=... -P StageDirectory.cmake
# Brings the directory TO up to date with FROM. A file that was staged earlier (STAGED lists them)
# and is no longer in FROM is removed. A file that a running service has put beside them stays. A
# file that an nginx has written in FROM is not staged.

cmake_minimum_required(VERSION 3.16)

file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE "${FROM}" "${FROM}/*")
list(FILTER files EXCLUDE REGEX "^run/")
set(earlier)
if(EXISTS "${STAGED}")
    file(STRINGS "${STAGED}" earlier)
    list(REMOVE_ITEM earlier "" ${files})
endif()
foreach(name IN LISTS earlier)
    file(REMOVE "${TO}/${name}")
endforeach()

# Brings directories, links and permissions too, but takes a file of the same second for the same.
string(REGEX REPLACE "([][+.*()^$?|\\\\])" "\\\\\\1" pattern "${FROM}")
file(COPY "${FROM}/" DESTINATION "${TO}" REGEX "^${pattern}/run$" EXCLUDE)
foreach(name IN LISTS files)
    if(NOT IS_SYMLINK "${FROM}/${name}")
        configure_file("${FROM}/${name}" "${TO}/${name}" COPYONLY) # if its contents differ
    endif()
endforeach()
list(JOIN files "\n" lines)
file(WRITE "${STAGED}" "${lines}\n")
