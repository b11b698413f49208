include(CMakePackageConfigHelpers)

install(TARGETS observability-api obs-ipc-mem opentelemetry-c EXPORT ObservabilityApiTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/observability_api.h include/observability_ipc_mem.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/observability DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT ObservabilityApiTargets NAMESPACE ObservabilityApi::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ObservabilityApi)
configure_package_config_file(cmake/ObservabilityApiConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/ObservabilityApiConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ObservabilityApi)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ObservabilityApiConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ObservabilityApiConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/ObservabilityApiConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ObservabilityApi)

# The pkg-config files find their prefix from their own directory, ${pcfiledir}, so that a tree
# installed with --prefix, or moved, still points its users at itself. An absolute libdir keeps
# no fixed place below the prefix: then the configured paths are written as they are.
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(pc_prefix "${CMAKE_INSTALL_PREFIX}")
else()
    file(RELATIVE_PATH up_to_prefix "/${pkgconfig_dir}" "/")
    string(REGEX REPLACE "/$" "" up_to_prefix "${up_to_prefix}")
    set(pc_prefix "\${pcfiledir}/${up_to_prefix}")
endif()

# ${prefix}/<dir> in a pkg-config file for a directory below the prefix, else <dir> itself.
function(obs_pc_dir out_var dir)
    if(IS_ABSOLUTE "${dir}")
        set(${out_var} "${dir}" PARENT_SCOPE)
    else()
        set(${out_var} "\${prefix}/${dir}" PARENT_SCOPE)
    endif()
endfunction()
obs_pc_dir(pc_libdir "${CMAKE_INSTALL_LIBDIR}")
obs_pc_dir(pc_includedir "${CMAKE_INSTALL_INCLUDEDIR}")

foreach(package observability-api obs-ipc-mem opentelemetry-c)
    configure_file(cmake/${package}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${package}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${package}.pc
        DESTINATION ${pkgconfig_dir})
endforeach()
