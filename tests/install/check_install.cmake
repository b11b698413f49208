# Checks of an installed tree as its users see it, run as
#   cmake -DSTEP=<step> -DWORK_DIR=<scratch dir> -DSOURCE_DIR=<this folder> -DLIBDIR=<libdir>
#         -DC_COMPILER=<cc> [step arguments] -P check_install.cmake
# with one of these steps, which fails with the output of whatever went wrong:
#   install       -DBUILD_DIR= [-DCONFIG=]: installs the build into WORK_DIR/staged and moves the
#                 tree to WORK_DIR/prefix, so that nothing can lean on the prefix it was installed
#                 under, nor on the configured one
#   find_package  -DGENERATOR= -DMAKE_PROGRAM= -DEXPECTED_VERSION=: configures and builds
#                 consumer/ against WORK_DIR/prefix, insists that its package came from there,
#                 and runs the program
#   pkg_config    -DPKG_CONFIG=: compiles consumer/consumer.c with the flags of
#                 "pkg-config --cflags --libs observability-api obs-ipc-mem", insists that every
#                 -I and -L lies in WORK_DIR/prefix, and runs the program
# Everything is written below WORK_DIR.
cmake_minimum_required(VERSION 3.25)

foreach(argument STEP WORK_DIR SOURCE_DIR LIBDIR C_COMPILER)
    if(NOT ${argument})
        message(FATAL_ERROR "check_install: -D${argument}=... is required")
    endif()
endforeach()
set(prefix ${WORK_DIR}/prefix)

# Runs the command; on failure stops with what and the command's output. The output (standard
# output and error together) is left in run_output.
function(run what)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output
                    ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        list(JOIN ARGN " " command)
        message(FATAL_ERROR "check_install: ${what} failed (${result}): ${command}\n${output}")
    endif()
    set(run_output "${output}" PARENT_SCOPE)
endfunction()

function(require_in_prefix what path)
    cmake_path(IS_PREFIX prefix "${path}" NORMALIZE inside)
    if(NOT inside)
        message(FATAL_ERROR "check_install: ${what} ${path} is outside the installed tree ${prefix}")
    endif()
endfunction()

function(install_tree)
    set(staged ${WORK_DIR}/staged)
    file(REMOVE_RECURSE ${WORK_DIR})
    set(config_argument)
    if(CONFIG)
        set(config_argument --config ${CONFIG})
    endif()
    run("installing" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${staged} ${config_argument})
    file(RENAME ${staged} ${prefix})
endfunction()

function(check_find_package_consumer)
    set(build ${WORK_DIR}/find_package)
    file(REMOVE_RECURSE ${build})
    run("configuring the find_package consumer"
        ${CMAKE_COMMAND} -S ${SOURCE_DIR}/consumer -B ${build} -G ${GENERATOR}
        -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM} -DCMAKE_C_COMPILER=${C_COMPILER}
        -DCMAKE_PREFIX_PATH=${prefix} -DEXPECTED_VERSION=${EXPECTED_VERSION})
    file(STRINGS ${build}/CMakeCache.txt package_dir REGEX "^ObservabilityApi_DIR:")
    string(REGEX REPLACE "^[^=]*=" "" package_dir "${package_dir}")
    require_in_prefix("the package found" "${package_dir}")
    run("building the find_package consumer" ${CMAKE_COMMAND} --build ${build})
    run("running the find_package consumer" ${build}/consumer)
    message(STATUS "find_package consumer: ${run_output}")
endfunction()

# The list of arguments in flags that start with option, without it.
function(option_values out_var option flags)
    set(values)
    foreach(flag IN LISTS flags)
        if(flag MATCHES "^${option}(.+)$")
            list(APPEND values "${CMAKE_MATCH_1}")
        endif()
    endforeach()
    set(${out_var} "${values}" PARENT_SCOPE)
endfunction()

function(check_pkg_config_consumer)
    if(NOT PKG_CONFIG)
        message(FATAL_ERROR "check_install: pkg-config not found (Debian package pkgconf)")
    endif()
    # Only the installed tree's files, and no sysroot in front of their paths.
    set(ENV{PKG_CONFIG_LIBDIR} ${prefix}/${LIBDIR}/pkgconfig)
    unset(ENV{PKG_CONFIG_PATH})
    unset(ENV{PKG_CONFIG_SYSROOT_DIR})
    run("pkg-config" ${PKG_CONFIG} --cflags --libs observability-api obs-ipc-mem)
    string(STRIP "${run_output}" flags)
    message(STATUS "pkg-config: ${flags}")
    separate_arguments(flags UNIX_COMMAND "${flags}")
    foreach(option -I -L)
        option_values(dirs ${option} "${flags}")
        if(NOT dirs)
            message(FATAL_ERROR "check_install: no ${option} among the pkg-config flags")
        endif()
        foreach(dir IN LISTS dirs)
            require_in_prefix("pkg-config's ${option}" "${dir}")
        endforeach()
    endforeach()

    set(build ${WORK_DIR}/pkg_config)
    file(REMOVE_RECURSE ${build})
    file(MAKE_DIRECTORY ${build})
    run("compiling the pkg-config consumer"
        ${C_COMPILER} ${SOURCE_DIR}/consumer/consumer.c -o ${build}/consumer ${flags})
    run("running the pkg-config consumer"
        ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/${LIBDIR} ${build}/consumer)
    message(STATUS "pkg-config consumer: ${run_output}")
endfunction()

if(STEP STREQUAL "install")
    install_tree()
elseif(STEP STREQUAL "find_package")
    check_find_package_consumer()
elseif(STEP STREQUAL "pkg_config")
    check_pkg_config_consumer()
else()
    message(FATAL_ERROR "check_install: unknown step '${STEP}'")
endif()
