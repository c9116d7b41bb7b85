# `cpack` in a build of the preset `packages`: a Debian package for each component.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zel-http)
set(CPACK_PACKAGE_VENDOR zel_http)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each component has its own
set(CPACK_PACKAGE_CONTACT "zel_http maintainers <maintainers@zel-http.example>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library development tool)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${ZEL_HTTP_DEBIAN_ARCHITECTURE})  # from a toolchain file; else this machine's
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Where dpkg-shlibdeps finds the library that the tool needs, and its package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/zel_http)
set(same_version "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(library_package libzel-http${ZEL_HTTP_ABI_VERSION})

# SOURCE_DATE_EPOCH, when it is set, is the date of everything in the packages.
string(TIMESTAMP CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)

# describe(COMPONENT PACKAGE SECTION SUMMARY DESCRIPTION)
macro(describe component package section summary)
    string(TOUPPER ${component} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
    set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${ARGN}")
    # What Debian wants to find about each package.
    configure_file(cmake/changelog.Debian.in ${PROJECT_BINARY_DIR}/doc/${package}/changelog.Debian)
    execute_process(COMMAND gzip -9n -f ${PROJECT_BINARY_DIR}/doc/${package}/changelog.Debian)
    execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/CHANGELOG.md
        OUTPUT_FILE ${PROJECT_BINARY_DIR}/doc/${package}/changelog.gz)
    install(DIRECTORY ${PROJECT_BINARY_DIR}/doc/${package} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc COMPONENT ${component})
    install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} RENAME copyright COMPONENT ${component})
endmacro()

set(about "zel_http performs HTTP and HTTPS requests on one engine thread for the whole\n\
process, through libcurl, and delivers each outcome on the application's own\nthread.")
describe(library ${library_package} libs "asynchronous HTTP client for device applications" ${about})
describe(development libzel-http-dev libdevel "asynchronous HTTP client - development files" ${about})
describe(tool zel-http web "command-line HTTP client on libzel_http"
    "Requests, downloads with progress, latency summaries and timings, for use on a\ndevice and in its scripts.")

set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# libcurl's list of symbols knows no options, so it asks for less than what is needed.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "libcurl4 (>= ${ZEL_HTTP_LEAST_CURL})")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_RECOMMENDS ca-certificates)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/triggers)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${library_package} ${same_version}, libcurl4-openssl-dev, libssl-dev, libfmt-dev")
# For the executor of Boost.Asio and for sinks of the bundled logger.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS "libboost-dev, libspdlog-dev")
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${library_package} ${same_version}, ca-certificates")
include(CPack)
