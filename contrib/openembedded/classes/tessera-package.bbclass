# SPDX-License-Identifier: Apache-2.0
# Makes an update package from the images of other recipes and deploys it. Use it in a separate recipe:
#
#   LICENSE = "CLOSED"
#   inherit tessera-package
#   TESSERA_PARTITIONS = "boot system"
#   TESSERA_IMAGE[system] = "core-image-minimal"
#   TESSERA_FILE[system] = "core-image-minimal-${MACHINE}.rootfs.ext4"
#   TESSERA_IMAGE[boot] = "my-boot-image"
#   TESSERA_FILE[boot] = "boot.img"
#   TESSERA_SIGN_KEY = "/path/key.pem"
#   TESSERA_SIGN_CERT = "/path/cert.pem"
#
# TESSERA_PARTITIONS  partitions to write, in this order
# TESSERA_IMAGE[name] recipe whose do_image_complete (TESSERA_TASK[name], if it is another task) deploys the image
# TESSERA_FILE[name]  name of the image in the deploy directory
# TESSERA_TYPE[name]  ab (default), permanent, bak or golden
# TESSERA_FIELDS[name] further fields of the description, as JSON: '{"anti_rollback": ...}'
# TESSERA_VERSION     version of the update; begins with a V
# TESSERA_MEDIUM      emmc, nand (a UBI volume too) or nor
# TESSERA_DESCRIPTION_FIELDS  further fields for the whole package, as JSON
# TESSERA_SIGN_KEY, TESSERA_SIGN_CERT  PEM files, one certificate per key; each key makes a signature.
#                     Without them the package is not signed

TESSERA_VERSION ?= "V${DISTRO_VERSION}"
TESSERA_MEDIUM ?= "emmc"
TESSERA_DESCRIPTION_FIELDS ?= "{}"
TESSERA_SIGN_KEY ?= ""
TESSERA_SIGN_CERT ?= ""

DEPENDS += "tessera-native"
INHIBIT_DEFAULT_DEPS = "1"
PACKAGE_ARCH = "${MACHINE_ARCH}"
S = "${WORKDIR}"
B = "${WORKDIR}/build"

inherit deploy nopackages

do_fetch[noexec] = "1"
do_unpack[noexec] = "1"
do_patch[noexec] = "1"
do_install[noexec] = "1"

def tessera_partition(d, name):
    import json
    part = {"name": name, "file": name + ".img", "medium": d.getVar("TESSERA_MEDIUM"),
            "type": d.getVarFlag("TESSERA_TYPE", name) or "ab", "method": "image"}
    part.update(json.loads(d.getVarFlag("TESSERA_FIELDS", name) or "{}"))
    return part

def tessera_description(d):
    """The draft of update.json; `tessera pack` fills in digests and sizes."""
    import json
    names = (d.getVar("TESSERA_PARTITIONS") or "").split()
    description = {"version": d.getVar("TESSERA_VERSION"), "partitions": [tessera_partition(d, name) for name in names]}
    description.update(json.loads(d.getVar("TESSERA_DESCRIPTION_FIELDS")))
    return description

def tessera_sign_options(d):
    keys, certificates = d.getVar("TESSERA_SIGN_KEY").split(), d.getVar("TESSERA_SIGN_CERT").split()
    if len(keys) != len(certificates):
        raise ValueError("TESSERA_SIGN_KEY and TESSERA_SIGN_CERT name different numbers of files")
    return " ".join("--sign '%s' --cert '%s'" % pair for pair in zip(keys, certificates))

python __anonymous() {
    for name in (d.getVar("TESSERA_PARTITIONS") or "").split():
        if not d.getVarFlag("TESSERA_FILE", name):
            bb.fatal("TESSERA_FILE[%s] is not set" % name)
        recipe = d.getVarFlag("TESSERA_IMAGE", name)
        if recipe:
            task = d.getVarFlag("TESSERA_TASK", name) or "do_image_complete"
            d.appendVarFlag("do_configure", "depends", " %s:%s" % (recipe, task))
    if not d.getVar("TESSERA_SIGN_KEY"):
        bb.warn("%s: the package will not be signed" % d.getVar("PN"))
}

python do_configure() {
    import json, os, shutil
    images = os.path.join(d.getVar("B"), "images")
    bb.utils.remove(images, recurse=True)
    bb.utils.mkdirhier(images)
    for name in (d.getVar("TESSERA_PARTITIONS") or "").split():
        source = os.path.join(d.getVar("DEPLOY_DIR_IMAGE"), d.getVarFlag("TESSERA_FILE", name))
        shutil.copyfile(source, os.path.join(images, name + ".img"))
    with open(os.path.join(d.getVar("B"), "draft.json"), "w") as draft:
        json.dump(tessera_description(d), draft, indent=2)
}

# The variable flags above are not part of any task's hash.
do_configure[nostamp] = "1"

do_compile() {
    tessera pack ${B}/draft.json ${B}/images -o ${B}/${PN}.zip ${@tessera_sign_options(d)}
}

do_deploy() {
    install -m 0644 ${B}/${PN}.zip ${DEPLOYDIR}/${PN}-${MACHINE}.zip
}
addtask deploy after do_compile before do_build
