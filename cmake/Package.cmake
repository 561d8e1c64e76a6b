# What other projects find the installed library by: pkg-config and find_package(zevotuned).
include(CMakePackageConfigHelpers)

# Relative, so that an installed tree can be moved, or installed below a folder of the caller's choice.
file(RELATIVE_PATH ZEVOTUNED_PREFIX_FROM_PC
     ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/libzevotuned.pc.in libzevotuned.pc @ONLY)
configure_file(cmake/zevotunedConfig.cmake.in zevotunedConfig.cmake COPYONLY)
write_basic_package_version_file(zevotunedConfigVersion.cmake COMPATIBILITY SameMajorVersion)

install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libzevotuned.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zevotunedConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/zevotunedConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zevotuned)
install(EXPORT zevotuned FILE zevotunedTargets.cmake DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zevotuned)
