# Shipped libraries need nothing at run time but the C library: no exceptions, no RTTI, no
# guarded statics, linked by the C driver so libstdc++ is never pulled in, and only the
# interface's symbols exported: those of cmake/exports.map, or of the version script given second.
function(obs_shipped_library target)
    set(exports ${PROJECT_SOURCE_DIR}/cmake/exports.map)
    if(ARGC GREATER 1)
        set(exports ${ARGV1})
    endif()
    target_compile_definitions(${target} PRIVATE OBS_BUILDING_LIBRARY)
    target_compile_options(${target} PRIVATE
        $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)
    set_target_properties(${target} PROPERTIES
        C_VISIBILITY_PRESET hidden
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        LINKER_LANGUAGE C)
    target_link_options(${target} PRIVATE
        -Wl,--no-undefined
        -Wl,--version-script=${exports})
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${exports})
endfunction()
