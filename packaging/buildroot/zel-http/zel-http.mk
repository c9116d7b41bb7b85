################################################################################
#
# zel-http
#
################################################################################

ZEL_HTTP_VERSION = 0.1.0
ZEL_HTTP_SOURCE = zel_http-$(ZEL_HTTP_VERSION).tar.gz
# The release archive, beside this file
ZEL_HTTP_SITE = $(abspath $(ZEL_HTTP_PKGDIR))
ZEL_HTTP_SITE_METHOD = file
ZEL_HTTP_LICENSE = MIT
ZEL_HTTP_LICENSE_FILES = LICENSE
ZEL_HTTP_INSTALL_STAGING = YES
ZEL_HTTP_DEPENDENCIES = boost fmt libcurl openssl
# Hardening flags come from Buildroot's own options
ZEL_HTTP_CONF_OPTS = \
	-DCMAKE_SKIP_INSTALL_RPATH=ON \
	-DZEL_HTTP_EXAMPLES=OFF \
	-DZEL_HTTP_HARDENING=OFF \
	-DZEL_HTTP_TESTS=OFF

ifeq ($(BR2_PACKAGE_ZEL_HTTP_BUNDLED_PLATFORM),y)
ZEL_HTTP_DEPENDENCIES += spdlog
ZEL_HTTP_CONF_OPTS += -DZEL_HTTP_PLATFORM_TARGET=zel_http::platform
else
ZEL_HTTP_CONF_OPTS += -DZEL_HTTP_PLATFORM_TARGET=zel_http::minimal_platform
endif

ifeq ($(BR2_PACKAGE_ZEL_HTTP_TOOL),y)
ZEL_HTTP_DEPENDENCIES += cli11 json-for-modern-cpp
ZEL_HTTP_CONF_OPTS += -DZEL_HTTP_TOOL=ON
else
ZEL_HTTP_CONF_OPTS += -DZEL_HTTP_TOOL=OFF
endif

$(eval $(cmake-package))
