SUMMARY = "Asynchronous HTTP client for device applications"
DESCRIPTION = "Performs HTTP and HTTPS requests on one engine thread for the whole process, through libcurl, and \
delivers each outcome on the application's own thread."
SECTION = "libs/network"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=139dc2ea53c9e3010ff889b735556d20"

DEPENDS = "boost curl fmt openssl"

# The release archive, in a directory files/ beside this recipe.
SRC_URI = "file://zel_http-${PV}.tar.gz"

# Releases before styhead unpack into WORKDIR.
UNPACKDIR ??= "${WORKDIR}"
S = "${UNPACKDIR}/zel_http-${PV}"

inherit cmake pkgconfig

# Without `bundled-platform` the platform layer is the minimal one, which logs errors to stderr only. The tool needs the
# bundled one.
PACKAGECONFIG ??= "bundled-platform tool"
PACKAGECONFIG[bundled-platform] = "-DZEL_HTTP_PLATFORM_TARGET=zel_http::platform,-DZEL_HTTP_PLATFORM_TARGET=zel_http::minimal_platform,spdlog"
PACKAGECONFIG[tool] = "-DZEL_HTTP_TOOL=ON,-DZEL_HTTP_TOOL=OFF,cli11 nlohmann-json"

# Hardening flags come from the distribution.
EXTRA_OECMAKE = "\
    -DCMAKE_SKIP_INSTALL_RPATH=ON \
    -DZEL_HTTP_EXAMPLES=OFF \
    -DZEL_HTTP_HARDENING=OFF \
    -DZEL_HTTP_TESTS=OFF \
"

PACKAGE_BEFORE_PN = "${PN}-tool"
FILES:${PN}-tool = "${bindir}/zel-http"

# To verify servers.
RRECOMMENDS:${PN} = "ca-certificates"
