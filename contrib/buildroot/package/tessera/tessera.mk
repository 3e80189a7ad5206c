# SPDX-License-Identifier: Apache-2.0
################################################################################
#
# tessera
#
################################################################################

TESSERA_VERSION = 1.0.0
# The tree that contains this directory. For a release's archive set _SITE and _SOURCE
# instead, drop _SITE_METHOD, and add the archive's checksum to tessera.hash.
TESSERA_SITE = $(BR2_EXTERNAL_TESSERA_PATH)/../..
TESSERA_SITE_METHOD = local
TESSERA_LICENSE = Apache-2.0
TESSERA_LICENSE_FILES = LICENSE
TESSERA_INSTALL_STAGING = YES
TESSERA_SUPPORTS_IN_SOURCE_BUILD = NO
TESSERA_DEPENDENCIES = jansson libdeflate minizip-zlib openssl zlib

# On a Debian host CMake would use the host's multiarch directory for the target.
TESSERA_CONF_OPTS = -DCMAKE_INSTALL_LIBDIR=lib -DTESSERA_TESTS=OFF

TESSERA_LOG_LIBRARY = $(call qstrip,$(BR2_PACKAGE_TESSERA_LOG_LIBRARY))
ifneq ($(TESSERA_LOG_LIBRARY),)
TESSERA_CONF_OPTS += \
	-DTESSERA_LOG_LIBRARY=$(STAGING_DIR)/$(TESSERA_LOG_LIBRARY) \
	-DTESSERA_LOG_INCLUDE_DIR=$(STAGING_DIR)/usr/include
endif

TESSERA_EFUSE_LIBRARY = $(call qstrip,$(BR2_PACKAGE_TESSERA_EFUSE_LIBRARY))
ifneq ($(TESSERA_EFUSE_LIBRARY),)
TESSERA_CONF_OPTS += \
	-DTESSERA_EFUSE_LIBRARY=$(STAGING_DIR)/$(TESSERA_EFUSE_LIBRARY) \
	-DTESSERA_EFUSE_INCLUDE_DIR=$(STAGING_DIR)/usr/include
endif

$(eval $(cmake-package))
