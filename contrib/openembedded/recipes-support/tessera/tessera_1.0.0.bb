# SPDX-License-Identifier: Apache-2.0
SUMMARY = "Library and command for A/B updates of embedded boards"
DESCRIPTION = "Writes update packages to eMMC, raw NAND, NOR and UBI, maintains two boot slots, and refuses \
versions below the board's eFuse counters."
SECTION = "admin"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

DEPENDS = "zlib minizip openssl jansson libdeflate"

inherit cmake pkgconfig externalsrc

# The tree around this layer. A product that fetches a release sets SRC_URI, and EXTERNALSRC to nothing.
EXTERNALSRC ?= "${TESSERA_TREE}"

EXTRA_OECMAKE = "-DBUILD_TESTING=OFF -DTESSERA_TESTS=OFF"

# The log and eFuse libraries built here are stand-ins. For a board that has its own, append for example
#   DEPENDS += "my-board-libraries"
#   EXTRA_OECMAKE += "-DTESSERA_LOG_LIBRARY=${STAGING_LIBDIR}/liblog.so \
#                     -DTESSERA_LOG_INCLUDE_DIR=${STAGING_INCDIR} \
#                     -DTESSERA_EFUSE_LIBRARY=${STAGING_LIBDIR}/libkastor_efuse.so \
#                     -DTESSERA_EFUSE_INCLUDE_DIR=${STAGING_INCDIR}"
# The package tessera-platform is then empty.
# The systemd unit is not enabled: the product decides when its system is healthy.
FILES:${PN} += "${datadir}/bash-completion ${nonarch_libdir}/systemd"
PACKAGES =+ "libtessera ${PN}-platform"
FILES:libtessera = "${libdir}/libtessera.so.*"
FILES:${PN}-platform = "${libdir}/liblog.so ${libdir}/libkastor_efuse.so"
# These two have no version in their names, here as on a board.
INSANE_SKIP:${PN}-platform = "dev-so"

BBCLASSEXTEND = "native nativesdk"
