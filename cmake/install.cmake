# What `cmake --install` puts where, by component: `library`, `development` and `tool`.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# A directory of its own, because `logging/` or `uri/` in a shared include directory would clash.
set(headers ${CMAKE_INSTALL_INCLUDEDIR}/zel_http)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/zel_http)

install(TARGETS zel_http zel_http_testing EXPORT zel_http-targets
    LIBRARY COMPONENT library NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development
    INCLUDES DESTINATION ${headers})
install(DIRECTORY api/zel_http testing/api/zel_http DESTINATION ${headers} COMPONENT development FILES_MATCHING PATTERN *.h)
set(absent_headers "")
if(NOT TARGET zel_http_platform)  # these belong to the bundled implementation
    list(APPEND absent_headers PATTERN bundled.h EXCLUDE PATTERN spdlog_sinks.h EXCLUDE)
endif()
foreach(module oru logging eventlog certificate uri)
    install(DIRECTORY platform/${module}/api/${module} DESTINATION ${headers} COMPONENT development ${absent_headers})
endforeach()

if(TARGET zel_http_tool)
    # Finds the library beside it, wherever the prefix is.
    file(RELATIVE_PATH library_from_tool "/${CMAKE_INSTALL_BINDIR}" "/${CMAKE_INSTALL_LIBDIR}")
    set_target_properties(zel_http_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${library_from_tool}")
    install(TARGETS zel_http_tool COMPONENT tool)
endif()
if(TARGET zel_http_manual)
    install(FILES ${PROJECT_BINARY_DIR}/tools/zel-http/zel-http.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        COMPONENT tool)
    install(FILES ${PROJECT_BINARY_DIR}/tools/zel-http/zel-http.bash RENAME zel-http
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions COMPONENT tool)
    install(FILES ${PROJECT_BINARY_DIR}/tools/zel-http/zel-http.zsh RENAME _zel-http
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/zsh/vendor-completions COMPONENT tool)
    install(FILES ${PROJECT_BINARY_DIR}/tools/zel-http/zel-http.fish
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/fish/vendor_completions.d COMPONENT tool)
endif()

# Who uses a shared library needs what its headers include; who links a static one, all that it calls, too.
set(spdlog_dependency "")
set(spdlog_requirement "")
set(requires Requires.private)
if(NOT BUILD_SHARED_LIBS)
    set(requires Requires)
    if(TARGET zel_http_platform)
        set(spdlog_dependency "find_dependency(spdlog ${ZEL_HTTP_LEAST_spdlog})")
        set(spdlog_requirement ", spdlog >= ${ZEL_HTTP_LEAST_spdlog}")
    endif()
endif()

install(EXPORT zel_http-targets NAMESPACE zel_http:: DESTINATION ${package} COMPONENT development)
configure_package_config_file(cmake/zel_http-config.cmake.in zel_http-config.cmake
    INSTALL_DESTINATION ${package} NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
set(compatibility SameMajorVersion)
if(PROJECT_VERSION_MAJOR EQUAL 0)
    set(compatibility SameMinorVersion)
endif()
write_basic_package_version_file(zel_http-config-version.cmake COMPATIBILITY ${compatibility})
install(FILES ${PROJECT_BINARY_DIR}/zel_http-config.cmake ${PROJECT_BINARY_DIR}/zel_http-config-version.cmake
    DESTINATION ${package} COMPONENT development)

# Relative to the file itself, so that the prefix can be moved and chosen at install time.
file(RELATIVE_PATH prefix_from_pc "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" /prefix)
foreach(name zel_http zel_http_testing)
    configure_file(cmake/${name}.pc.in ${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()
