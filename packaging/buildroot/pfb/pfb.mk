################################################################################
#
# pfb
#
################################################################################

PFB_VERSION = 0.1.0
PFB_SITE = $(BR2_EXTERNAL_PFB_PATH)/../..
PFB_SITE_METHOD = local
PFB_LICENSE = MIT
PFB_LICENSE_FILES = LICENSE
PFB_INSTALL_STAGING = YES
PFB_DEPENDENCIES = host-pkgconf libglib2 pixman
PFB_CONF_OPTS = -Dtests=false

ifeq ($(BR2_PACKAGE_PFB_TOOLS),y)
PFB_DEPENDENCIES += cairo gdk-pixbuf libpng pango
PFB_CONF_OPTS += -Dtools=true
ifeq ($(BR2_PACKAGE_LIBVNCSERVER),y)
PFB_DEPENDENCIES += libvncserver
PFB_CONF_OPTS += -Dvnc=enabled
else
PFB_CONF_OPTS += -Dvnc=disabled
endif
else
PFB_CONF_OPTS += -Dtools=false -Dvnc=disabled
endif

ifneq ($(call qstrip,$(BR2_PACKAGE_PFB_SOCKET_GROUP)),)
PFB_CONF_OPTS += -Dsocket_group=$(call qstrip,$(BR2_PACKAGE_PFB_SOCKET_GROUP))
endif

define PFB_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(TARGET_DIR)/usr/share/pfb/fbserver.init \
		$(TARGET_DIR)/etc/init.d/S20fbserver
endef

$(eval $(meson-package))
