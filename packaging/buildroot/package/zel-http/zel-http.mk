################################################################################
#
# zel-http
#
################################################################################

ZEL_HTTP_VERSION = 0.1.0
ZEL_HTTP_SOURCE = zel_http-$(ZEL_HTTP_VERSION).tar.gz
ZEL_HTTP_SITE = file://$(BR2_EXTERNAL_ZEL_HTTP_PATH)/dist
ZEL_HTTP_LICENSE = MIT
ZEL_HTTP_LICENSE_FILES = LICENSE
ZEL_HTTP_INSTALL_STAGING = YES
ZEL_HTTP_DEPENDENCIES = boost fmt libcurl openssl spdlog
ZEL_HTTP_CONF_OPTS = -DZEL_HTTP_TESTS=OFF

ifeq ($(BR2_PACKAGE_ZEL_HTTP_TOOL),y)
ZEL_HTTP_DEPENDENCIES += cli11 json-for-modern-cpp
ZEL_HTTP_CONF_OPTS += -DZEL_HTTP_TOOL=ON
else
ZEL_HTTP_CONF_OPTS += -DZEL_HTTP_TOOL=OFF
endif

$(eval $(cmake-package))
