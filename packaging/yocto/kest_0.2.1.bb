SUMMARY = "Client of a device's management daemon, and the daemon"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=d4a3f2fa0ae80c200990f3514138fcba"

SRC_URI = "file://kest-${PV}.tar.xz"

DEPENDS = "jansson libmd c-ares expat libpcre2 libxcrypt zlib"

inherit cmake pkgconfig systemd useradd

PACKAGECONFIG ??= "lua tls ${@bb.utils.filter('DISTRO_FEATURES', 'systemd', d)}"
PACKAGECONFIG[lua] = "-DKEST_LUA=ON,-DKEST_LUA=OFF,lua"
PACKAGECONFIG[tls] = "-DKEST_TLS=ON,-DKEST_TLS=OFF,openssl"
PACKAGECONFIG[systemd] = "-DKEST_SYSTEMD=ON,-DKEST_SYSTEMD=OFF"

EXTRA_OECMAKE = "-DKEST_STATIC=OFF -DKEST_TESTS=OFF"

PACKAGES =+ "veld veld-models"
FILES:veld = "${sbindir}/veld ${systemd_system_unitdir} ${nonarch_libdir}/sysusers.d ${nonarch_libdir}/tmpfiles.d"
FILES:veld-models = "${datadir}/kest/models"
FILES:${PN} += "${datadir}/bash-completion ${datadir}/zsh"
RDEPENDS:veld = "veld-models"
RRECOMMENDS:${PN} = "${@bb.utils.contains('PACKAGECONFIG', 'tls', 'ca-certificates libssl', '', d)}"

SYSTEMD_PACKAGES = "veld"
SYSTEMD_SERVICE:veld = "veld.socket veld.service"
USERADD_PACKAGES = "veld"
USERADD_PARAM:veld = "--system --user-group --home-dir /var/lib/veld --shell /sbin/nologin veld"
