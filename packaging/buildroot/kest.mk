################################################################################
#
# kest
#
################################################################################

KEST_VERSION = 0.2.1
KEST_SOURCE = kest-$(KEST_VERSION).tar.xz
KEST_LICENSE = MIT
KEST_LICENSE_FILES = LICENSE
KEST_DEPENDENCIES = host-pkgconf jansson libmd
KEST_CONF_OPTS = -DKEST_STATIC=OFF -DKEST_SYSTEMD=$(if $(BR2_INIT_SYSTEMD),ON,OFF) -DKEST_TESTS=OFF

# The console speaks the language's version 5.3.
ifeq ($(BR2_PACKAGE_LUA_5_3),y)
KEST_DEPENDENCIES += lua
KEST_CONF_OPTS += -DKEST_LUA=ON
else
KEST_CONF_OPTS += -DKEST_LUA=OFF
endif

ifeq ($(BR2_PACKAGE_OPENSSL),y)
KEST_DEPENDENCIES += openssl
KEST_CONF_OPTS += -DKEST_TLS=ON
else
KEST_CONF_OPTS += -DKEST_TLS=OFF
endif

ifeq ($(BR2_PACKAGE_KEST_VELD),y)
KEST_DEPENDENCIES += c-ares expat pcre2 zlib $(if $(BR2_PACKAGE_LIBXCRYPT),libxcrypt)
KEST_CONF_OPTS += -DKEST_DAEMON=ON

define KEST_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(KEST_PKGDIR)/S95veld $(TARGET_DIR)/etc/init.d/S95veld
endef

define KEST_USERS
	veld -1 veld -1 * /var/lib/veld - - Device management daemon
endef
else
KEST_CONF_OPTS += -DKEST_DAEMON=OFF
endif

$(eval $(cmake-package))
