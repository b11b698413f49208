# Guards of a shipped shared library's binary interface, read from the built file with the
# toolchain's readelf and nm. Run as
#   cmake -DCHECK=<check> -DLIBRARY=<file> -DREADELF=<readelf> -DNM=<nm>
#         [-DALLOWED_NEEDED=<regex>] -P check_shipped_library.cmake
# with one of these checks; it fails, naming every offender, when the library breaks it:
#   needed       every NEEDED entry is a piece of the C library or the dynamic loader
#                (ALLOWED_NEEDED narrows that, e.g. to musl's single libc.so)
#   cxx_runtime  no undefined symbol of the C++ runtime (mangled names, __gxx_*, __cxa_*)
#   exports      every defined dynamic symbol carries an interface prefix
# Each check also insists on finding what any such library has (its C library, an undefined
# libc call, an export), so that output it failed to read cannot pass as a clean library.
cmake_minimum_required(VERSION 3.25)

foreach(argument CHECK LIBRARY READELF NM)
    if(NOT ${argument})
        message(FATAL_ERROR "check_shipped_library: -D${argument}=... is required")
    endif()
endforeach()
if(NOT EXISTS "${LIBRARY}")
    message(FATAL_ERROR "check_shipped_library: ${LIBRARY} does not exist")
endif()

# The C library, the parts some platforms split out of it, and the loaders of glibc and musl.
set(c_library_needed "^(libc|libdl|libpthread|libm)\\.so(\\.[0-9]+)*$")
set(loader_needed "^ld-(linux|musl)[-a-z0-9_]*\\.so\\.[0-9]+$")
if(NOT DEFINED ALLOWED_NEEDED)
    set(ALLOWED_NEEDED "${c_library_needed}|${loader_needed}")
endif()
# A C++ runtime symbol, except the two that C programs' start-up code itself uses.
set(cxx_runtime_symbol "^(_Z|__gxx_|__cxa_)")
set(c_start_up_symbol "^__cxa_(finalize|atexit)$")
set(interface_symbol "^(obs_|sdk_|_otelc_)|^__sdk_ot_cpp_provider$")

# The tool's standard output as a list of lines.
function(tool_output_lines out_var)
    execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE output ERROR_VARIABLE errors
                    RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "check_shipped_library: '${ARGN}' failed (${result}): ${errors}")
    endif()
    string(REPLACE "\n" ";" lines "${output}")
    set(${out_var} "${lines}" PARENT_SCOPE)
endfunction()

# The first capture group of regex in each element of the list named list_var that matches it.
function(first_captures out_var regex list_var)
    set(captures)
    foreach(line IN LISTS ${list_var})
        if(line MATCHES "${regex}")
            list(APPEND captures "${CMAKE_MATCH_1}")
        endif()
    endforeach()
    set(${out_var} "${captures}" PARENT_SCOPE)
endfunction()

function(needed_entries out_var)
    tool_output_lines(lines ${READELF} -d -W ${LIBRARY})
    first_captures(entries "\\(NEEDED\\)[^[]*\\[([^ ]+)\\]" lines)
    set(${out_var} "${entries}" PARENT_SCOPE)
endfunction()

# Names of the dynamic symbols nm lists with the given selection, without version suffixes.
function(dynamic_symbols out_var selection)
    tool_output_lines(lines ${NM} -D ${selection} ${LIBRARY})
    first_captures(names "^[0-9a-fA-F ]* [A-Za-z] ([^ @]+)" lines)
    set(${out_var} "${names}" PARENT_SCOPE)
endfunction()

function(fail_on_offenders what offenders)
    if(offenders)
        list(JOIN offenders "\n  " listed)
        message(FATAL_ERROR "${LIBRARY} ${what}:\n  ${listed}")
    endif()
endfunction()

function(check_needed)
    needed_entries(entries)
    set(offenders)
    set(c_library_found FALSE)
    foreach(entry IN LISTS entries)
        if(NOT entry MATCHES "${ALLOWED_NEEDED}")
            list(APPEND offenders "${entry}")
        elseif(entry MATCHES "^libc\\.so")
            set(c_library_found TRUE)
        endif()
    endforeach()
    fail_on_offenders("needs shared libraries beyond the C library" "${offenders}")
    if(NOT c_library_found)
        message(FATAL_ERROR "${LIBRARY}: no NEEDED entry for the C library among '${entries}'")
    endif()
    message(STATUS "NEEDED: ${entries}")
endfunction()

function(check_cxx_runtime)
    dynamic_symbols(undefined --undefined-only)
    if(NOT "malloc" IN_LIST undefined)
        message(FATAL_ERROR "${LIBRARY}: malloc is not among the undefined symbols read")
    endif()
    set(offenders)
    foreach(name IN LISTS undefined)
        if(name MATCHES "${cxx_runtime_symbol}" AND NOT name MATCHES "${c_start_up_symbol}")
            list(APPEND offenders "${name}")
        endif()
    endforeach()
    fail_on_offenders("refers to the C++ runtime" "${offenders}")
endfunction()

function(check_exports)
    dynamic_symbols(exported --defined-only)
    if(NOT exported)
        message(FATAL_ERROR "${LIBRARY}: no exported symbol read")
    endif()
    set(offenders)
    foreach(name IN LISTS exported)
        if(NOT name MATCHES "${interface_symbol}")
            list(APPEND offenders "${name}")
        endif()
    endforeach()
    fail_on_offenders("exports symbols outside the interface" "${offenders}")
    list(LENGTH exported count)
    message(STATUS "${count} exported symbols, all of the interface")
endfunction()

if(CHECK STREQUAL "needed")
    check_needed()
elseif(CHECK STREQUAL "cxx_runtime")
    check_cxx_runtime()
elseif(CHECK STREQUAL "exports")
    check_exports()
else()
    message(FATAL_ERROR "check_shipped_library: unknown check '${CHECK}'")
endif()
