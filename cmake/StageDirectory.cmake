# cmake -DFROM=... -DTO=... -DSTAGED=... -P StageDirectory.cmake
# Brings the directory TO up to date with FROM. What was staged earlier and has left FROM goes (the
# list is kept in the file STAGED); what a running service has put beside it stays.

cmake_minimum_required(VERSION 3.16)

file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE "${FROM}" "${FROM}/*")
set(earlier)
if(EXISTS "${STAGED}")
    file(STRINGS "${STAGED}" earlier)
    list(POP_FRONT earlier origin)
    if(origin STREQUAL "${FROM}")
        list(REMOVE_ITEM earlier ${files})
    endif()
endif()
foreach(name IN LISTS earlier)
    file(REMOVE "${TO}/${name}")
endforeach()
# Replaces a changed file by a new one, so a program that runs from the old one is not disturbed.
file(COPY "${FROM}/" DESTINATION "${TO}")
list(JOIN files "\n" lines)
file(WRITE "${STAGED}" "${FROM}\n${lines}\n")
