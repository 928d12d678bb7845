# What is no library: find_package(Zark), the demo device, the web client, and what systemd, Avahi and the shells read.
include(CMakePackageConfigHelpers)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/Zark)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/ZarkConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/ZarkConfig.cmake ${CMAKE_BINARY_DIR}/ZarkConfigVersion.cmake DESTINATION ${package})
install(EXPORT Zark NAMESPACE Zark:: FILE ZarkTargets.cmake DESTINATION ${package})

install(FILES share/demo/tree.json DESTINATION ${CMAKE_INSTALL_DATADIR}/zark)
# Made by ./dev build web; a device may have pages of its own instead.
install(DIRECTORY build/www DESTINATION ${CMAKE_INSTALL_DATADIR}/zark OPTIONAL)
install(FILES packaging/zark-host.service DESTINATION lib/systemd/system)
install(FILES packaging/zark.service DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/avahi/services)
install(FILES packaging/zark-host.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
if(EXISTS ${PROJECT_SOURCE_DIR}/share/zarkctl)
    install(FILES share/zarkctl/zarkctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    install(FILES share/zarkctl/zarkctl.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME zarkctl)
    install(FILES share/zarkctl/_zarkctl DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
endif()
