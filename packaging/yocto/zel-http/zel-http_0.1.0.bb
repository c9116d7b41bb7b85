SUMMARY = "Asynchronous HTTP client for device applications"
DESCRIPTION = "Performs HTTP and HTTPS requests on one engine thread for the whole process, through libcurl, and delivers \
each outcome on the application's own thread. The tool zel-http is in the package zel-http-tool."
SECTION = "libs"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=139dc2ea53c9e3010ff889b735556d20"

DEPENDS = "boost curl fmt openssl spdlog"

# The archive of the release lies beside this file: nothing is fetched.
SRC_URI = "file://zel_http-${PV}.tar.gz"
S = "${WORKDIR}/zel_http-${PV}"

inherit cmake pkgconfig

PACKAGECONFIG ??= "tool"
PACKAGECONFIG[tool] = "-DZEL_HTTP_TOOL=ON,-DZEL_HTTP_TOOL=OFF,cli11 nlohmann-json"

EXTRA_OECMAKE = "-DZEL_HTTP_TESTS=OFF -DCMAKE_SKIP_INSTALL_RPATH=ON"

PACKAGE_BEFORE_PN = "${@bb.utils.contains('PACKAGECONFIG', 'tool', '${PN}-tool', '', d)}"
FILES:${PN}-tool = "${bindir}/zel-http ${datadir}/bash-completion"
RDEPENDS:${PN}-tool = "ca-certificates"
RRECOMMENDS:${PN} = "ca-certificates"
