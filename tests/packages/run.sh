#!/usr/bin/env bash
# The packages are built, and in a new minimal Debian installed, upgraded, used, removed and purged.
# usage: run.sh SOURCE_DIR
set -euo pipefail
script=$(realpath "$0") source=$(realpath "$1")
cd "$source"
[ -n "${TARVO_FULL:-}" ] || { echo "only with TARVO_FULL"; exit 77; }
[ "$(id -u)" = 0 ] && command -v debootstrap >/dev/null && command -v dh >/dev/null ||
  { echo "needs root, debootstrap and debhelper"; exit 77; }
. scripts/debian-root.sh
own_mounts "$script" "$source"
work=$(mktemp -d) root=$work/root
started=()
trap 'kill -KILL "${started[@]}" 2>/dev/null || true; wait || true; remove_root "$root"; remove_root "$work/host"
  rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM
fail() { echo "$*"; exit 1; }

make_root "$root" & making=$!
# The program's own tests run elsewhere; what a debugger needs would take time.
DEB_BUILD_OPTIONS="nocheck noautodbgsym" DEB_CXXFLAGS_STRIP=-g scripts/package --here "$work/packages"
wait $making || fail "there is no new system"
version=$(sed -nE '1s/.*\((.*)\).*/\1/p' debian/changelog)
package() { realpath "$work/packages/$1"_*.deb; }

# The version before: another number, another configuration.
older() { # PACKAGE
  local file
  file=$(package "$1")
  dpkg-deb -R "$file" "$work/older"
  sed -i -E 's/^(Version: ).*/\10.0.9/; s/(libtarvo0\.1 \(>?= )[^)]*/\10.0.9/' "$work/older/DEBIAN/control"
  [ ! -f "$work/older/etc/tarvo/tarvo.toml" ] || echo '# The version before.' >>"$work/older/etc/tarvo/tarvo.toml"
  dpkg-deb --root-owner-group -b "$work/older" "$root/older_$1.deb" >/dev/null
  rm -rf "$work/older"
}
for name in libtarvo0.1 tarvo-tools; do
  older $name
  cp "$(package $name)" "$root/newer_$name.deb"
  dpkg-deb -f "$(package $name)" Depends | tr ',' '\n' | grep -v libtarvo
done | paste -sd, >"$work/depends"
in_root "$root" apt-get satisfy -y -qq --no-install-recommends "$(cat "$work/depends"), systemd, procps" </dev/null >"$work/log" 2>&1 ||
  fail "what the packages depend on is not there: $(tail -n 5 "$work/log")"
install -d -m 755 "$root/var/lib/private"  # systemd would show the unit its folder there, and nobody else
everything() {
  in_root "$root" find / \( -path /proc -o -path /run -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/cache \
    -o -path /var/log -o -path /tmp -o -path '/*.deb' \) -prune -o -printf '%p %y %l\n' | sort
}
everything >"$work/before"

install_in "$root" /older_libtarvo0.1.deb /older_tarvo-tools.deb
[ "$(in_root "$root" tarvo --version)" = "tarvo $version" ] || fail "the program does not start"
[ -z "$(find "$root/etc/systemd" -name tarvo.service)" ] || fail "the service was enabled"

# Somebody fills it in, and the next version comes with another configuration.
day=/tmp/day.nmea
in_root "$root" tarvo simulate --from 48.1,11.5 --to 48.13,11.6 --profile drive --seed 1 --format nmea --output $day
export ROOT_USER=65534:65534
: >"$work/sandbox"
enter_root "$root" tarvo sandbox --port 0 --data /tmp/data >"$work/sandbox" 2>&1 & started+=($!)
until grep -q '^page' "$work/sandbox"; do kill -0 "${started[0]}" 2>/dev/null || fail "$(cat "$work/sandbox")"; done
cat >>"$root/etc/tarvo/tarvo.toml" <<END
backend = "$(awk '/^backend/ { print $2 }' "$work/sandbox")"
client-id = "demo"
api-key = "demo-key"
nmea = "$day"
flush-timeout = "300s"  # a fresh device sends nothing for its first 180 s
END
(umask 077 && echo demo-secret >"$root/etc/tarvo/api-secret")
ROOT_USER='' in_root "$root" apt-get install -y -qq --no-install-recommends -o Dpkg::Options::=--force-confold \
  /newer_libtarvo0.1.deb /newer_tarvo-tools.deb </dev/null >"$work/log" 2>&1 ||
  fail "no upgrade: $(tail -n 5 "$work/log")"
[ "$(in_root "$root" dpkg-query -W -f '${Version}' tarvo-tools)" = "$version" ] || fail "it was not upgraded"
grep -q '^client-id = "demo"' "$root/etc/tarvo/tarvo.toml" || fail "the configuration was overwritten"
[ -f "$root/etc/tarvo/tarvo.toml.dpkg-dist" ] || fail "the new configuration is not offered"

# As the service runs: its options from the file, the secret from a credential, another user's folder for its state.
install -d -o 65534 -g 65534 -m 700 "$root/var/lib/private/tarvo" "$root/tmp/credentials"
ln -s private/tarvo "$root/var/lib/tarvo"
install -o 65534 -g 65534 -m 400 "$root/etc/tarvo/api-secret" "$root/tmp/credentials"
enter_root "$root" env STATE_DIRECTORY=/var/lib/private/tarvo CREDENTIALS_DIRECTORY=/tmp/credentials tarvo run \
  >"$work/unit" 2>&1 & unit=$!
started+=("$unit")
ROOT_USER='' in_root "$root" systemd-analyze verify --man=no tarvo.service >"$work/log" 2>&1 || fail "$(cat "$work/log")"

# Meanwhile a host is built against the packages in another new system.
host() {
  unset ROOT_USER
  make_root "$work/host"
  local name files=()
  for name in libtarvo0.1 libtarvo-dev libtarvo-c0 libtarvo-c-dev libtarvo-objc0 libtarvo-objc-dev libtarvo-doc \
    python3-tarvo; do
    cp "$(package $name)" "$work/host/"
    files+=("/$(basename "$(package $name)")")
  done
  cp tests/consumer/CMakeLists.txt "$work/host/"
  install_in "$work/host" g++ cmake make pkg-config "${files[@]}"
  in_root "$work/host" test -f /usr/share/doc/libtarvo-doc/html/reference/c/tarvo_8h.html
  sed -n '/^```python$/,/^```$/{/^```/!p;/^```$/q}' docs/python.md >"$work/host/unit.py"
  sed -n '/^<!-- file: unit.m -->$/,/^```$/p' docs/objc.md | grep -vE '^(```|<!--)' >"$work/host/unit.m"
  in_root "$work/host" sh -ec 'unit=/usr/share/doc/libtarvo-dev/examples/unit.cpp
    cmake -S / -B /build -DUNIT_SOURCE=$unit -DTARVO_INCLUDE_DIR=/usr/include && make -C /build
    g++ $unit -o /build/unit $(pkg-config --cflags --libs tarvo)
    gcc /usr/share/doc/libtarvo-c-dev/examples/tracker.c -o /build/tracker $(pkg-config --cflags --libs tarvo-c)
    gcc $(gnustep-config --objc-flags) -std=gnu11 /unit.m -o /build/unit-objc $(pkg-config --cflags --libs tarvo-objc) \
      $(gnustep-config --base-libs)
    [ ! -e /proc/self ] || # without it GNUstep has no arguments
      /build/unit-objc "$(mktemp -d)" http://127.0.0.1:9/api | grep -F "[11,48],[11,48.001],[11 ,48.002]"
    python3 /unit.py "$(mktemp -d)" http://127.0.0.1:9/api | grep -F "[11, 48.002]"
    for host in /build/consumer /build/unit; do
      $host "$(mktemp -d)" http://127.0.0.1:9/api | grep -F "[11,48],[11,48.001],[11 ,48.002]"; done'
}
host >"$work/host.txt" 2>&1 || fail "no host with the packages: $(tail -n 20 "$work/host.txt")"

wait $unit || fail "the unit ended with $?: $(tail -n 5 "$work/unit")"
status=$(in_root "$root" tarvo status --json --home /var/lib/private/tarvo)
count() { grep -o "\"$1\":[0-9]*" <<<"$status" | cut -d: -f2; }
held=$(sqlite3 "$root/tmp/data/sandbox.sqlite" 'SELECT count(*) FROM positions')
[ "$(count stored)" -gt 300 ] && [ "$(count acknowledged)" = "$(count stored)" ] && [ "$held" = "$(count stored)" ] ||
  fail "not everything is acknowledged: the backend has $held, $status, $(cat "$work/unit")"

# What is removed keeps configuration and state; what is purged leaves nothing.
kill "${started[0]}"
unset ROOT_USER
in_root "$root" apt-get remove -y -qq tarvo-tools libtarvo0.1 </dev/null >"$work/log" 2>&1 || fail "$(cat "$work/log")"
[ ! -e "$root/usr/bin/tarvo" ] || fail "the program was not removed"
for kept in /etc/tarvo/tarvo.toml /etc/tarvo/api-secret /var/lib/tarvo/Documents; do
  in_root "$root" test -e $kept || fail "removing took $kept"
done
in_root "$root" apt-get purge -y -qq tarvo-tools libtarvo0.1 </dev/null >"$work/log" 2>&1 || fail "$(cat "$work/log")"
in_root "$root" dpkg-query -W tarvo-tools libtarvo0.1 >/dev/null 2>&1 && fail "dpkg still knows them"
everything >"$work/after"
diff "$work/before" "$work/after" >"$work/log" || fail "left or taken: $(cat "$work/log")"
echo "the packages install, run, upgrade and go; the backend got all $held positions"
