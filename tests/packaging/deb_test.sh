#!/bin/bash
# The Debian packages made by CPack from a scratch build with the stand-ins:
# keldra holds exactly the supervisor, its unit and its manual page with the
# right modes and owners, depends on nothing beyond the C and C++ runtime, and
# ships no test program; keldra-host-platform holds the stand-ins with their
# headers and pkg-config files. Nothing is installed on the host.
. "$(dirname "$0")/lib.sh"

need_tool cmake cmake
need_tool cpack cmake
need_tool dpkg-deb dpkg
need_tool dpkg-shlibdeps dpkg-dev
need_tool file file
need_tool readelf binutils
make_work_dir

build=$work/build
note "scratch build in $build"
configure_and_build "$build" "$work/build.log" -DKELDRA_BUILD_TESTS=OFF \
    -DKELDRA_INSTALL_PLATFORM_STANDINS=ON -DCMAKE_INSTALL_PREFIX=/usr
note "cpack -G DEB"
(cd "$build" && cpack -G DEB) >"$work/cpack.log" 2>&1 || abort "cpack -G DEB failed" "$work/cpack.log"

arch=$(dpkg --print-architecture 2>/dev/null || echo '*')
main_deb=$build/keldra_${version}_$arch.deb
platform_deb=$build/keldra-host-platform_${version}_$arch.deb
[ -f "$main_deb" ] || abort "$(basename "$main_deb") was not made: $(ls "$build"/*.deb 2>/dev/null)"
[ -f "$platform_deb" ] || fail "$(basename "$platform_deb") was not made: $(ls "$build"/*.deb 2>/dev/null)"

# listing <deb> <file>: "<mode> <path>" of every entry, paths without "./";
# entries not owned by root/root are reported.
listing() {
    dpkg-deb --fsys-tarfile "$1" | tar -tvf - >"$2.raw" || abort "cannot list $1"
    awk '{ sub(/^\.\//, "", $6); print $1, "/" $6 }' "$2.raw" >"$2"
    local foreign
    foreign=$(awk '$2 != "root/root"' "$2.raw")
    [ -z "$foreign" ] || fail "$(basename "$1") has entries not owned by root/root: $foreign"
}

# --- keldra ---------------------------------------------------------------
list=$work/keldra.list
listing "$main_deb" "$list"
check_mode "$list" '/usr/sbin/keldra' -rwxr-xr-x "the supervisor /usr/sbin/keldra"
check_mode "$list" '(/usr)?/lib/systemd/system/keldra\.service' -rw-r--r-- "the unit keldra.service"
check_mode "$list" '/usr/share/man/man8/keldra\.8(\.gz)?' -rw-r--r-- "the manual page keldra.8"
others=$(grep -v '^d' "$list" | grep -Ev ' (/usr/sbin/keldra|(/usr)?/lib/systemd/system/keldra\.service|/usr/share/man/man8/keldra\.8(\.gz)?)$')
[ -z "$others" ] || fail "keldra ships more than the supervisor, unit and manual page: $others"
check_no_test_files "$list"

[ "$(dpkg-deb -f "$main_deb" Package)" = keldra ] || fail "package name is $(dpkg-deb -f "$main_deb" Package)"
[ "$(dpkg-deb -f "$main_deb" Version)" = "$version" ] || fail "version is $(dpkg-deb -f "$main_deb" Version), expected $version"
depends=$(dpkg-deb -f "$main_deb" Depends)
note "keldra Depends: $depends"
dep_names=$(tr ',' '\n' <<<"$depends" | sed 's/^ *//; s/ .*//')
for dep in libc6 libstdc++6; do
    grep -Fqx -- "$dep" <<<"$dep_names" || fail "Depends lacks $dep (dpkg-shlibdeps not used?): $depends"
done
extra=$(grep -Ev '^(libc6|libstdc\+\+6|libgcc-s1)$' <<<"$dep_names")
[ -z "$extra" ] || fail "keldra depends on more than the C and C++ runtime: $extra"

root=$work/keldra-root
dpkg-deb -x "$main_deb" "$root" || abort "cannot extract $main_deb"
grep -qx 'ExecStart=/usr/sbin/keldra' "$root"/usr/lib/systemd/system/keldra.service "$root"/lib/systemd/system/keldra.service 2>/dev/null ||
    fail "the packaged unit does not start /usr/sbin/keldra"
dynamic=$(readelf -d "$root/usr/sbin/keldra")
grep -Eq '\((RPATH|RUNPATH)\)' <<<"$dynamic" && fail "the packaged keldra keeps a run path: $(grep -E 'RPATH|RUNPATH' <<<"$dynamic")"
readelf -S "$root/usr/sbin/keldra" | grep -q '\.debug_info' && fail "the packaged keldra is not stripped"
# Full RELRO: bound at start-up, relocations read-only afterwards.
grep -Eq '\(FLAGS\) +BIND_NOW' <<<"$dynamic" || fail "the packaged keldra is not linked with -z now"
readelf -lW "$root/usr/sbin/keldra" | grep -q 'GNU_RELRO' || fail "the packaged keldra has no RELRO segment"

control=$work/keldra-control
dpkg-deb -e "$main_deb" "$control" || abort "cannot extract the control files of $main_deb"
for script in postinst prerm postrm; do
    if [ ! -f "$control/$script" ]; then
        fail "maintainer script $script missing"
        continue
    fi
    [ "$(stat -c %a "$control/$script")" = 755 ] || fail "$script has mode $(stat -c %a "$control/$script")"
    sh -n "$control/$script" || fail "$script is not a valid shell script"
done
# A first installation only enables the unit; a running keldra is restarted
# (handing over to the new binary) only on an upgrade.
grep -q 'try-restart keldra.service' "$control/postinst" || fail "postinst does not restart keldra on upgrade"
grep -Eq 'systemctl (start|restart) ' "$control/postinst" && fail "postinst starts keldra unconditionally"

# --- keldra-host-platform ---------------------------------------------------
if [ -f "$platform_deb" ]; then
    plist=$work/platform.list
    listing "$platform_deb" "$plist"
    for lib in vesk tessel pellan-admin; do
        grep -Eq " /usr/lib/([^/]+/)?lib$lib\.so\.1\$" "$plist" || fail "lib$lib.so.1 missing from keldra-host-platform"
        grep -Eq "^l.* /usr/lib/([^/]+/)?lib$lib\.so\$" "$plist" || fail "the link lib$lib.so missing from keldra-host-platform"
        check_mode "$plist" "/usr/include/$lib\.h" -rw-r--r-- "header $lib.h"
        check_mode "$plist" "/usr/lib/([^/]+/)?pkgconfig/$lib\.pc" -rw-r--r-- "pkg-config file $lib.pc"
    done
    check_no_test_files "$plist"
    grep -q 'keldra$' "$plist" && fail "keldra-host-platform ships the supervisor"
    [ "$(dpkg-deb -f "$platform_deb" Package)" = keldra-host-platform ] ||
        fail "package name is $(dpkg-deb -f "$platform_deb" Package)"

    proot=$work/platform-root
    dpkg-deb -x "$platform_deb" "$proot" || abort "cannot extract $platform_deb"
    pc=$(find "$proot" -name vesk.pc | head -n 1)
    if [ -n "$pc" ]; then
        grep -qx 'prefix=/usr' "$pc" || fail "vesk.pc does not say prefix=/usr: $(cat "$pc")"
        if command -v pkg-config >/dev/null 2>&1; then
            libs=$(PKG_CONFIG_LIBDIR=$(dirname "$pc") PKG_CONFIG_SYSROOT_DIR=$proot PKG_CONFIG_ALLOW_SYSTEM_CFLAGS=1 pkg-config --libs --cflags vesk tessel pellan-admin) ||
                fail "pkg-config cannot read the packaged .pc files"
            for word in "-I$proot/usr/include" -lvesk -ltessel -lpellan-admin; do
                grep -Fq -- "$word" <<<"$libs" || fail "pkg-config output lacks $word: $libs"
            done
        fi
    fi
fi

finish
