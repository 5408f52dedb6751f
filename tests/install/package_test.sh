#!/usr/bin/env bash
# Usage: package_test.sh PACKAGES_DIR WORK_DIR BUILD_TREE
# Checks the Debian packages made from BUILD_TREE (in PACKAGES_DIR): what they
# hold against what `cmake --install` lays out, and what their maintainer
# scripts do when dpkg installs, upgrades, removes and purges them in a
# throw-away root where systemd's tools are missing.
set -euo pipefail
packages=$(cd "$1" && pwd)
work=$2
tree=$3
platform=$(echo "$packages"/tarncore_*_amd64.deb)
dev=$(echo "$packages"/tarncore-dev_*_amd64.deb)
vtid="etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID"
unit_link=etc/systemd/system/multi-user.target.wants/TarnCoreService.service

failures=0
fail() { echo "FAILED: $*" >&2; failures=$((failures + 1)); }
check() { local what=$1; shift; "$@" || fail "$what"; }
rm -rf "$work"
mkdir -p "$work"

# --- What the packages hold: the places the guides and the platform name.
contents() { dpkg-deb --contents "$1" | awk '$1 !~ /^d/ { sub(/^\./, "", $6); print $6 }' | sort; }
contents "$platform" > "$work/platform.files"
contents "$dev" > "$work/dev.files"
for file in /opt/tarncore/TarnCoreContainer /opt/tarncore/TarnCoreService /opt/tarncore/TarnCoreUI /opt/tarncore/TarnCoreUpdater \
            /opt/tarncore/TarnCoreNotice /opt/tarncore/tarncore-setup /opt/tarncore/keys/maker.pub \
            /opt/tarncore/config/remoteConfig.json /opt/tarncore/kits/com.vantrel.scopeservice/ServiceInfo.json \
            /opt/tarncore/kits/com.vantrel.scopeservice/libtarn_scope_service.so \
            /opt/tarncore/kits/com.vantrel.scopeservice/TarnCoreScopeSandbox \
            /opt/tarncore/kits/com.vantrel.sample/libtarn_sample_kit.so \
            /lib/systemd/system/TarnCoreService.service /etc/tarncore/scope-policy.json /usr/bin/tarncore \
            /usr/share/doc/tarncore/SIGNING /usr/lib/libtarncore-client.so.5; do
  check "tarncore holds $file" grep -qx "$file" "$work/platform.files"
done
for file in /usr/bin/tarncore-sign /usr/include/tarnkit/tarn_kit.h /usr/include/tarnkit/scope.h \
            /usr/include/tarnkit/product_feature.h /usr/lib/cmake/TarnKit/TarnKitConfig.cmake \
            /usr/lib/cmake/TarnKit/TarnKitConfigVersion.cmake /usr/lib/cmake/TarnKit/TarnKitTargets.cmake \
            /usr/lib/cmake/TarnKit/TarnKit.cmake /usr/lib/cmake/TarnKit/TarnSign.cmake \
            /usr/include/tarncore/client.h /usr/lib/libtarncore-client.so \
            /usr/lib/cmake/TarnCoreClient/TarnCoreClientConfig.cmake /usr/lib/pkgconfig/tarncore-client.pc; do
  check "tarncore-dev holds $file" grep -qx "$file" "$work/dev.files"
done
check "the packages share no file" test -z "$(comm -12 "$work/platform.files" "$work/dev.files")"
check "tarncore declares its libraries" bash -c "dpkg-deb --field '$platform' Depends | grep -q libjsoncpp"
check "tarncore says it is signed with a development key" \
  bash -c "dpkg-deb --field '$platform' Description | grep -q 'development key'"
check "configuration files are conffiles" diff <(dpkg-deb --ctrl-tarfile "$platform" | tar -xO ./conffiles) \
  <(printf '/etc/tarncore/scope-policy.json\n/opt/tarncore/config/remoteConfig.json\n')

# cmake --install lays out the same files (a signed program keeps its bytes),
# and its machine component what the postinst makes.
staged="$work/staged"
DESTDIR="$staged" cmake --install "$tree" --prefix /usr >/dev/null
for file in $(cat "$work/platform.files" "$work/dev.files"); do
  check "cmake --install lays out $file as packaged" test -f "$staged$file"
done
check "the staged signatures are the packaged ones" \
  cmp "$staged/opt/tarncore/TarnCoreContainer" <(dpkg-deb --fsys-tarfile "$platform" | tar -xO ./opt/tarncore/TarnCoreContainer)
check "cmake --install writes Install_Path" test "$(cat "$staged/$vtid/Install_Path")" = /opt/tarncore/
check "cmake --install trusts the maker key" \
  cmp "$staged/opt/tarncore/keys/maker.pub" "$staged/etc/tarncore/trusted-keys/maker/tarncore.pub"

# --- dpkg in a throw-away root. DPKG_ROOT tells the maintainer scripts where
# they act; systemd never runs there. (The guides install and purge with
# systemd's tools at hand: the service they start is the unit the postinst
# enabled.)
dpkg_in() {
  local root=$1
  shift
  mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
  touch "$root/var/lib/dpkg/status" "$root/var/lib/dpkg/available"
  dpkg --root="$root" --force-script-chrootless --force-not-root --force-depends "$@" >>"$work/dpkg.log" 2>&1 ||
    { fail "dpkg $* in $root (see $work/dpkg.log)"; tail -20 "$work/dpkg.log" >&2; }
}

# Without systemd's tools (no deb-systemd-helper, no systemctl): install, an
# upgrade that keeps what the administrator changed, remove, purge.
tools="$work/tools"
mkdir -p "$tools"
for program in /usr/local/sbin/* /usr/local/bin/* /usr/sbin/* /usr/bin/* /sbin/* /bin/*; do
  case ${program##*/} in deb-systemd-helper | deb-systemd-invoke | systemctl) continue ;; esac
  [[ -e "$tools/${program##*/}" ]] || ln -s "$program" "$tools/${program##*/}"
done
root="$work/root"
PATH=$tools dpkg_in "$root" --install "$platform"
check "the package writes Install_Path" test "$(cat "$root/$vtid/Install_Path")" = /opt/tarncore/
check "the package trusts its maker key" cmp "$root/opt/tarncore/keys/maker.pub" \
  "$root/etc/tarncore/trusted-keys/maker/tarncore.pub"
check "no unit link without systemd" test ! -L "$root/$unit_link"

# The next version changes the packaged remote configuration; the
# administrator changed the scope policy and a registry value.
next="$work/next"
dpkg-deb --raw-extract "$platform" "$next"
sed -i 's/^Version: .*/&.1/' "$next/DEBIAN/control"
echo '// next version' >> "$next/opt/tarncore/config/remoteConfig.json"
dpkg-deb --root-owner-group -Znone --build "$next" "$work/next.deb" >/dev/null
echo '// edited by the administrator' >> "$root/etc/tarncore/scope-policy.json"
printf false > "$root/$vtid/ShareAnalysis"
PATH=$tools dpkg_in "$root" --install "$work/next.deb"
check "an upgrade installs the next version" \
  bash -c "dpkg --root='$root' --status tarncore | grep -q '^Version: .*\.1$'"
check "an upgrade keeps the edited policy" grep -q "edited by the administrator" "$root/etc/tarncore/scope-policy.json"
check "an upgrade brings the new configuration" grep -q "next version" "$root/opt/tarncore/config/remoteConfig.json"
check "an upgrade keeps registry values" test "$(cat "$root/$vtid/ShareAnalysis")" = false

# What the platform makes while it runs, and a kit the administrator added.
mkdir -p "$root/opt/tarncore/config/cache" "$root/var/lib/Vantrel/TARNCORE/log" "$root/opt/tarncore/kits/com.example.mine"
touch "$root/opt/tarncore/config/cache/remoteConfig.json" "$root/var/lib/Vantrel/TARNCORE/log/TarnCoreContainer.log" \
      "$root/opt/tarncore/kits/com.example.mine/kitManifest.json"
PATH=$tools dpkg_in "$root" --remove tarncore
check "a removal takes the programs" test ! -e "$root/opt/tarncore/TarnCoreContainer"
check "a removal keeps the configuration" grep -q "edited by the administrator" "$root/etc/tarncore/scope-policy.json"
PATH=$tools dpkg_in "$root" --purge tarncore
for gone in etc/tarncore var/lib/Vantrel opt/tarncore/config; do
  check "a purge removes /$gone" test ! -e "$root/$gone"
done
check "a purge leaves added kits" test -f "$root/opt/tarncore/kits/com.example.mine/kitManifest.json"

if ((failures)); then
  echo "$failures check(s) failed" >&2
  exit 1
fi
rm -rf "$work"
echo "package checks passed"
