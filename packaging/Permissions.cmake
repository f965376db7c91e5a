# Run by cpack on the files of a package. A package's files have the same permissions whatever the
# umask was under which the sources were checked out.
execute_process(COMMAND chmod -R u=rwX,go=rX ${CPACK_TEMPORARY_DIRECTORY}
    RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "The permissions of the package's files cannot be set.")
endif()
