################################################################################
#
# kelo-monitord
#
################################################################################

KELO_MONITORD_SITE = $(KELO_MONITORD_PKGDIR)/../../..
KELO_MONITORD_VERSION = $(shell awk '/^project/ { print $$3 }' $(KELO_MONITORD_SITE)/CMakeLists.txt)
KELO_MONITORD_SITE_METHOD = local
KELO_MONITORD_DEPENDENCIES = libevent
KELO_MONITORD_CONF_OPTS = \
	-DKELO_TESTS=OFF \
	-DKELO_SDK_DIR=$(call qstrip,$(BR2_PACKAGE_KELO_MONITORD_SDK))

define KELO_MONITORD_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/target/packaging/S30kelo-monitord \
		$(TARGET_DIR)/etc/init.d/S30kelo-monitord
endef

$(eval $(cmake-package))
