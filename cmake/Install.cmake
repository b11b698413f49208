include(CMakePackageConfigHelpers)

install(TARGETS observability-api obs-ipc-mem EXPORT ObservabilityApiTargets
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

foreach(package observability-api obs-ipc-mem)
    configure_file(cmake/${package}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${package}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${package}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
