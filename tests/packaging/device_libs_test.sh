#!/bin/bash
# A build with KELDRA_USE_DEVICE_LIBS=ON links keldra against platform
# libraries found through pkg-config instead of the in-tree stand-ins. The
# "device" libraries here are the stand-ins installed with their pkg-config
# files into a scratch prefix by a first build (KELDRA_INSTALL_PLATFORM_STANDINS);
# the second build must take everything from that prefix. keldra is inspected
# with readelf and ldd only, never run.
. "$(dirname "$0")/lib.sh"

need_tool cmake cmake
need_tool pkg-config pkg-config
need_tool readelf binutils
need_tool ldd libc-bin
make_work_dir

prefix=$work/prefix
note "stand-ins installed into $prefix"
install_standins "$work/standins" "$prefix" "$work/standins.log"

for lib in vesk tessel pellan-admin; do
    [ -f "$prefix/include/$lib.h" ] || fail "$lib.h not installed into $prefix/include"
    [ -f "$prefix/lib/lib$lib.so.1" ] || fail "lib$lib.so.1 not installed into $prefix/lib"
    [ -L "$prefix/lib/lib$lib.so" ] || fail "the link lib$lib.so not installed into $prefix/lib"
    pc=$standins_pc_dir/$lib.pc
    if [ ! -f "$pc" ]; then
        fail "$lib.pc not installed into $standins_pc_dir"
        continue
    fi
    grep -qx "prefix=$prefix" "$pc" || fail "$lib.pc does not name the install prefix: $(grep '^prefix=' "$pc")"
    flags=$(PKG_CONFIG_LIBDIR=$standins_pc_dir pkg-config --cflags --libs "$lib") ||
        fail "pkg-config cannot read $pc"
    for word in "-I$prefix/include" "-L$prefix/lib" "-l$lib"; do
        grep -Fq -- "$word" <<<"$flags" || fail "pkg-config --cflags --libs $lib lacks $word: $flags"
    done
done

# Without the modules the configuration must stop, not fall back on the
# in-tree stand-ins.
mkdir -p "$work/empty"
if PKG_CONFIG_LIBDIR=$work/empty PKG_CONFIG_PATH= cmake -S "$source_dir" -B "$work/missing" \
    -DKELDRA_USE_DEVICE_LIBS=ON >"$work/missing.log" 2>&1; then
    fail "configuring with KELDRA_USE_DEVICE_LIBS=ON succeeded although pkg-config finds no platform library"
elif ! grep -q vesk "$work/missing.log"; then
    fail "the failed configuration does not name the missing modules: $(tail -n 5 "$work/missing.log")"
fi

device=$work/device
note "device build in $device (PKG_CONFIG_PATH=$standins_pc_dir)"
PKG_CONFIG_PATH=$standins_pc_dir configure_and_build "$device" "$work/device.log" \
    -DKELDRA_USE_DEVICE_LIBS=ON -DCMAKE_EXPORT_COMPILE_COMMANDS=ON
keldra=$device/keldra
[ -x "$keldra" ] || abort "the device build made no $keldra" "$work/device.log"

# Nothing of the stand-ins or the tests is built.
built=$(find "$device" \( -name 'libvesk.so*' -o -name 'libtessel.so*' -o -name 'libpellan-admin.so*' \
    -o -name keldra-sandbox -o -name keldra-simd -o -name 'unit_*' \) -print)
[ -z "$built" ] || fail "the device build built stand-ins or tests: $built"

# The headers come from the prefix, not from platform/.
commands=$device/compile_commands.json
if [ -f "$commands" ]; then
    grep -Fq -- "$prefix/include" "$commands" || fail "no compile command uses $prefix/include"
    grep -Fq -- "$source_dir/platform" "$commands" && fail "compile commands still use $source_dir/platform"
else
    fail "$commands was not written"
fi

dynamic=$(readelf -d "$keldra") || abort "readelf -d $keldra failed"
for lib in vesk tessel pellan-admin; do
    grep -Fq "Shared library: [lib$lib.so.1]" <<<"$dynamic" || fail "keldra has no NEEDED entry for lib$lib.so.1"
done
grep -E '\((RUNPATH|RPATH)\)' <<<"$dynamic" | grep -Fq -- "$prefix/lib" ||
    fail "keldra's run path does not name $prefix/lib: $(grep -E 'RUNPATH|RPATH' <<<"$dynamic")"

# The dynamic loader's resolution, without any LD_LIBRARY_PATH.
resolved=$(env -u LD_LIBRARY_PATH ldd "$keldra") || fail "ldd $keldra failed: $resolved"
for lib in vesk tessel pellan-admin; do
    grep -Eq "^[[:space:]]*lib$lib\.so\.1 => $prefix/lib/lib$lib\.so\.1 " <<<"$resolved" ||
        fail "lib$lib.so.1 is not resolved from $prefix/lib: $(grep "lib$lib" <<<"$resolved")"
done

# Installed for the device, keldra keeps no run path into the build machine.
DESTDIR=$work/dest cmake --install "$device" --prefix /usr >"$work/install.log" 2>&1 ||
    abort "installing the device build failed" "$work/install.log"
[ -x "$work/dest/usr/sbin/keldra" ] || fail "the device build installs no /usr/sbin/keldra"
readelf -d "$work/dest/usr/sbin/keldra" | grep -Eq '\((RUNPATH|RPATH)\)' &&
    fail "the installed device keldra keeps a run path"
stray=$(find "$work/dest" -name '*.so*' -o -name '*.pc' -o -name '*.h')
[ -z "$stray" ] || fail "the device build installs platform files: $stray"

finish
