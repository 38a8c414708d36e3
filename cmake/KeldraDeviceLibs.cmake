# Finds the device's own platform libraries through pkg-config, for a build
# with KELDRA_USE_DEVICE_LIBS=ON: the platform log library (vesk), the
# event-IPC library (tessel) and the policy checker's administration library
# (pellan-admin). Their modules must be visible to pkg-config, for example
# through PKG_CONFIG_PATH or PKG_CONFIG_LIBDIR and PKG_CONFIG_SYSROOT_DIR of the
# device's SDK.
#
# Defines the imported target PkgConfig::KELDRA_DEVICE_LIBS, which carries the
# include directories, library paths and libraries of all three, and the
# variables KELDRA_DEVICE_LIBS_* of pkg_check_modules (LIBRARY_DIRS among
# them, used by the Debian package to resolve the libraries' dependencies).
find_package(PkgConfig REQUIRED)
pkg_check_modules(KELDRA_DEVICE_LIBS REQUIRED IMPORTED_TARGET vesk tessel pellan-admin)
message(STATUS "Platform libraries of the device: ${KELDRA_DEVICE_LIBS_LINK_LIBRARIES}")
