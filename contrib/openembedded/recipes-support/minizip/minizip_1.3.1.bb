# SPDX-License-Identifier: Apache-2.0
SUMMARY = "The zip library that zlib carries in contrib/minizip"
HOMEPAGE = "https://zlib.net/"
SECTION = "libs"
LICENSE = "Zlib"
LIC_FILES_CHKSUM = "file://zlib.h;beginline=6;endline=23;md5=5377232268e952e9ef63bc555f7aa6c0"

DEPENDS = "zlib"

# The same archive and checksum as in the recipe of zlib.
SRC_URI = "https://zlib.net/zlib-${PV}.tar.gz"
SRC_URI[sha256sum] = "9a93b2b7dfdac77ceba5a558a580e74667dd6fede4585b91eefb60f03b72df23"
PREMIRRORS:append = " https://zlib.net/ https://zlib.net/fossils/"

S = "${WORKDIR}/zlib-${PV}"
AUTOTOOLS_SCRIPT_PATH = "${S}/contrib/minizip"

inherit autotools pkgconfig

BBCLASSEXTEND = "native nativesdk"
