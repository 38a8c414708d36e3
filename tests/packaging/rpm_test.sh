#!/bin/bash
# The RPM package of the recipe packaging/keldra.spec, built with rpmbuild from the source
# tarball that this build tree makes (CPack source generator), the way a
# device build does: against "device" platform libraries found through
# pkg-config, here the stand-ins installed into a scratch prefix. Checks the
# tarball, the package's files, modes, owners and requirements. Nothing is
# installed on the host and keldra is never run.
. "$(dirname "$0")/lib.sh"

need_tool cmake cmake
need_tool cpack cmake
need_tool rpmbuild rpm
need_tool rpm rpm
need_tool rpm2archive rpm
need_tool pkg-config pkg-config
make_work_dir

recipe=$source_dir/packaging/keldra.spec
recipe_version=$(sed -n 's/^Version:[[:space:]]*//p' "$recipe")
[ "$recipe_version" = "$version" ] || fail "keldra.spec has Version $recipe_version, the project $version"
grep -Eq -- '-DKELDRA_BUILD_TESTS=OFF' "$recipe" || fail "keldra.spec does not configure with -DKELDRA_BUILD_TESTS=OFF"
build_requires=$(sed -n 's/^BuildRequires:[[:space:]]*\([^[:space:]]*\).*/\1/p' "$recipe")
for req in cmake gcc-c++; do
    grep -Fqx -- "$req" <<<"$build_requires" || fail "keldra.spec lacks BuildRequires: $req"
done

# The source tarball.
source_config=${KELDRA_CPACK_SOURCE_CONFIG:-$build_dir/CPackSourceConfig.cmake}
[ -f "$source_config" ] || abort "$source_config does not exist; configure the build tree first"
mkdir -p "$work/sources"
note "source tarball (cpack --config $source_config)"
(cd "$work/sources" && cpack --config "$source_config") >"$work/source.log" 2>&1 ||
    abort "making the source tarball failed" "$work/source.log"
tarball=$work/sources/keldra-$version.tar.gz
[ -f "$tarball" ] || abort "no $(basename "$tarball") made: $(ls "$work/sources")"
tar -tzf "$tarball" >"$work/tarball.list" || abort "cannot list $tarball"
outside=$(grep -v "^keldra-$version/" "$work/tarball.list")
[ -z "$outside" ] || fail "tarball entries outside keldra-$version/: $outside"
for file in CMakeLists.txt src/CMakeLists.txt packaging/CMakeLists.txt packaging/keldra.spec \
    packaging/keldra.service.in docs/keldra.8 platform/vesk/vesk.h; do
    grep -qx "keldra-$version/$file" "$work/tarball.list" || fail "the tarball lacks $file"
done
junk=$(grep -E '(/\.git/|/CMakeCache\.txt$|/CMakeFiles/|/_CPack_Packages/|\.o$)' "$work/tarball.list" | head -n 5)
[ -z "$junk" ] || fail "the tarball holds build or version-control files: $junk"
rm -rf "$work/sources/_CPack_Packages"

# The "device" platform libraries.
prefix=$work/prefix
note "stand-ins installed into $prefix as the device's libraries"
install_standins "$work/standins" "$prefix" "$work/standins.log"

# rpmbuild; --nodeps because the build requirements are not RPM packages here.
top=$work/rpmbuild
mkdir -p "$work/tmp"
note "rpmbuild -bb"
PKG_CONFIG_PATH=$standins_pc_dir rpmbuild -bb --nodeps \
    --define "_topdir $top" --define "_sourcedir $work/sources" --define "_tmppath $work/tmp" \
    "$recipe" >"$work/rpmbuild.log" 2>&1 || abort "rpmbuild failed" "$work/rpmbuild.log"
grep -q 'KELDRA_BUILD_TESTS=OFF' "$work/rpmbuild.log" || fail "the RPM build did not turn the tests off"
grep -Eq 'keldra-sandbox|keldra-simd|gtest' "$work/rpmbuild.log" && fail "the RPM build built test programs"

rpms=$(find "$top/RPMS" -name '*.rpm')
[ "$(wc -w <<<"$rpms")" = 1 ] || abort "expected one binary RPM, found: $rpms"
package=$rpms
[ "$(rpm -qp --qf '%{NAME}' "$package")" = keldra ] || fail "package name is $(rpm -qp --qf '%{NAME}' "$package")"
[ "$(rpm -qp --qf '%{VERSION}' "$package")" = "$version" ] || fail "package version is $(rpm -qp --qf '%{VERSION}' "$package")"

list=$work/rpm.list
rpm -qp --qf '[%{FILEMODES:perms} %{FILENAMES}\n]' "$package" >"$list" || abort "cannot list $package"
check_mode "$list" '/usr/sbin/keldra' -rwxr-xr-x "the supervisor /usr/sbin/keldra"
check_mode "$list" '(/usr)?/lib/systemd/system/keldra\.service' -rw-r--r-- "the unit keldra.service"
check_mode "$list" '/usr/share/man/man8/keldra\.8(\.gz)?' -rw-r--r-- "the manual page keldra.8"
others=$(grep -Ev ' (/usr/sbin/keldra|(/usr)?/lib/systemd/system/keldra\.service|/usr/share/man/man8/keldra\.8(\.gz)?|/usr/lib/\.build-id(/.*)?)$' "$list")
[ -z "$others" ] || fail "the RPM ships more than the supervisor, unit and manual page: $others"
check_no_test_files "$list"
owners=$(rpm -qp --qf '[%{FILEUSERNAME}:%{FILEGROUPNAME} %{FILENAMES}\n]' "$package" | grep -v '^root:root ')
[ -z "$owners" ] || fail "files not owned by root:root: $owners"

# Requirements: the C and C++ runtime, the device's platform libraries and
# the scriptlets' shell; nothing else.
requires=$(rpm -qp --requires "$package")
for lib in vesk tessel pellan-admin; do
    grep -Fq "lib$lib.so.1()" <<<"$requires" || fail "the RPM does not require lib$lib.so.1: $requires"
done
extra=$(grep -Ev '^(lib(c|m|stdc\+\+|gcc_s|vesk|tessel|pellan-admin)\.so\.[0-9]+\(|ld-linux[^ ]*\.so|rtld\(|rpmlib\(|/bin/sh$|/usr/bin/sh$)' <<<"$requires")
[ -z "$extra" ] || fail "unexpected requirements: $extra"

# The files themselves.
(cd "$work" && rpm2archive "$package") >/dev/null 2>&1 && [ -f "$package.tgz" ] ||
    abort "rpm2archive could not unpack $package"
root=$work/root
mkdir -p "$root"
tar -xzf "$package.tgz" -C "$root" || abort "cannot unpack $package.tgz"
unit=$(find "$root" -name keldra.service | head -n 1)
if [ -n "$unit" ]; then
    grep -qx 'ExecStart=/usr/sbin/keldra' "$unit" || fail "the packaged unit says $(grep '^ExecStart' "$unit")"
else
    fail "no keldra.service in the unpacked RPM"
fi
if command -v readelf >/dev/null 2>&1; then
    readelf -d "$root/usr/sbin/keldra" | grep -Eq '\((RUNPATH|RPATH)\)' &&
        fail "the packaged keldra keeps a run path"
fi

finish
