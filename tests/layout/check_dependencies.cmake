# Fails when a library folder includes the internal headers of a folder that depends on it:
# dependencies point one way, support <- value <- policy <- policy_ot <- api <- sdk_ot, and the
# IPC providers, the binding and the tools see the public headers only.
# Run as: cmake -DSOURCE_DIR=<project> -P check_dependencies.cmake
cmake_minimum_required(VERSION 3.25)
set(order support value policy policy_ot api sdk_ot)
set(public_only ipc otelc tools)

function(check_folder folder allowed)
    file(GLOB_RECURSE sources "${SOURCE_DIR}/${folder}/*.h" "${SOURCE_DIR}/${folder}/*.cpp"
        "${SOURCE_DIR}/${folder}/*.c")
    foreach(source IN LISTS sources)
        file(STRINGS "${source}" includes REGEX "^#include \"[a-z_]+/")
        foreach(line IN LISTS includes)
            string(REGEX REPLACE "^#include \"([a-z_]+)/.*" "\\1" used "${line}")
            if(used STREQUAL "observability" OR used IN_LIST allowed)
                continue()
            endif()
            file(RELATIVE_PATH shown "${SOURCE_DIR}" "${source}")
            message(SEND_ERROR "${shown} includes \"${used}/\" against the dependency order")
        endforeach()
    endforeach()
endfunction()

set(below "")
foreach(folder IN LISTS order)
    list(APPEND below ${folder})
    check_folder(${folder} "${below}")
endforeach()
foreach(folder IN LISTS public_only)
    # support/ holds header-only helpers (lists, copies) that a provider may compile in.
    check_folder(${folder} "${folder};support")
endforeach()
