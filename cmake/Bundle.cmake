# Where the bundle is assembled, and what an integrator replaces in it.

set(ORVANE_BUNDLE_DIR ${CMAKE_BINARY_DIR}/orvane.app)

set(ORVANE_NGINX_DIR ${PROJECT_SOURCE_DIR}/bundle/nginx CACHE PATH
    "Directory that is staged as orvane.app/nginx")
set(ORVANE_RPC_SERVER "" CACHE FILEPATH
    "Program that is staged as orvane.app/rpcServer/MacOs/rpcServer; empty for the sample server")

# The blank before the text keeps CMake from breaking the line.
if(NOT IS_DIRECTORY "${ORVANE_NGINX_DIR}")
    message(FATAL_ERROR " ORVANE_NGINX_DIR: there is no directory ${ORVANE_NGINX_DIR}")
endif()
if(ORVANE_RPC_SERVER AND (NOT EXISTS "${ORVANE_RPC_SERVER}" OR IS_DIRECTORY "${ORVANE_RPC_SERVER}"))
    message(FATAL_ERROR " ORVANE_RPC_SERVER: there is no file ${ORVANE_RPC_SERVER}")
endif()
