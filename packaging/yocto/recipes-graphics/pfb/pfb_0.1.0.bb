SUMMARY = "Many programs on one framebuffer"
DESCRIPTION = "A compositing display server for small devices that have a framebuffer and no GPU"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=847ec2723adb83b978ea9cd8b6c53093"

PFB_REPOSITORY ?= "git:///path/to/pfb;protocol=file;branch=main"
SRC_URI = "${PFB_REPOSITORY}"
SRCREV ?= "${AUTOREV}"
PV = "0.1.0+git${SRCPV}"
S = "${WORKDIR}/git"

DEPENDS = "glib-2.0 pixman"

inherit meson pkgconfig systemd update-rc.d

PACKAGECONFIG ??= "tools"
PACKAGECONFIG[tools] = "-Dtools=true,-Dtools=false,cairo pango gdk-pixbuf libpng"
PACKAGECONFIG[vnc] = "-Dvnc=enabled,-Dvnc=disabled,libvncserver"
EXTRA_OEMESON = "-Dtests=false"

PACKAGE_BEFORE_PN = "fbserver pfb-tools"
FILES:fbserver = "${bindir}/fbserver ${sysconfdir}/init.d ${systemd_system_unitdir} ${datadir}/pfb"
FILES:pfb-tools = "${bindir}/pfbctl ${bindir}/pfbpanel ${bindir}/pfb-vnc ${libdir}/pfbpanel ${datadir}/bash-completion"

SYSTEMD_PACKAGES = "fbserver"
SYSTEMD_SERVICE:fbserver = "fbserver.service"
INITSCRIPT_PACKAGES = "fbserver"
INITSCRIPT_NAME:fbserver = "fbserver"
INITSCRIPT_PARAMS:fbserver = "defaults 20"

do_install:append() {
    install -D -m 0755 ${D}${datadir}/pfb/fbserver.init ${D}${sysconfdir}/init.d/fbserver
}
