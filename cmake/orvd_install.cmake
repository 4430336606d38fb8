# What `cmake --install` puts in an image: the daemon, its configuration and the files that
# supervise it. The simulator programs (orvd-vdev, orvd-bus, libvrtl.so) and the tests stay in
# the build folder: they have no place on an access point.
#
# Destinations are relative to the prefix so that `--prefix` and DESTDIR relocate everything.
# A device image wants /usr/sbin/orvd and /etc/orvd.conf, the paths the init script and the
# unit name: configure with -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_SYSCONFDIR=/etc.
include(GNUInstallDirs)

install(TARGETS orvd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})

# The example enables no service, so a fresh install is inert until someone names the service
# in it (a daemon with nothing to do exits 0 at once).
install(FILES ${PROJECT_SOURCE_DIR}/docs/orvd.conf.example
  DESTINATION ${CMAKE_INSTALL_SYSCONFDIR} RENAME orvd.conf)

# The supervision files go beside the documentation, not to /etc/init.d or the systemd unit
# folder: which of the two a device uses is the image's choice, and a host install must not
# start a daemon that drives the Wi-Fi driver.
install(FILES ${PROJECT_SOURCE_DIR}/dist/orvd.init ${PROJECT_SOURCE_DIR}/dist/orvd.service
  DESTINATION ${CMAKE_INSTALL_DATADIR}/orvd)
