# Sourced by scripts/package and tests/packages/run.sh, by root: minimal systems of this one's Debian release, from the
# mirror that apt uses here.

# own_mounts SCRIPT [ARGUMENT...]: starts the script again where its mounts end with it, however it ends. Without that
# right there is no /proc in the new systems, which go on without.
own_mounts() {
  [ -n "${TARVO_OWN_MOUNTS:-}" ] || ! unshare --mount true 2>/dev/null ||
    TARVO_OWN_MOUNTS=1 exec unshare --mount "$@"
}

# make_root FOLDER: a new system there. Its base is kept in build/ for a week.
make_root() {
  local suite architecture mirror sources proxy kept
  suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
  architecture=$(dpkg --print-architecture)
  # Of foreign repositories the origin is another; before apt's first update nothing is known of it.
  sources=$(apt-get indextargets --format '$(ORIGIN) $(RELEASE) $(COMPONENT) $(REPO_URI)' 'Created-By: Packages' |
    awk -v suite="$suite" '$1 ~ /^(Debian|\$\(ORIGIN\))$/ && $3 == "main" && $2 ~ "^" suite "(-updates|-security)?$" {
      print "deb", $4, $2, $3 }')
  mirror=$(awk -v suite="$suite" '$3 == suite { print $2; exit }' <<<"$sources")
  [ -n "$mirror" ] || { echo "apt names no mirror of Debian $suite" >&2; return 1; }
  kept=build/debian-$suite-$architecture.tar
  mkdir -p "$1" build
  if [ -n "$(find "$kept" -mtime -7 2>/dev/null)" ]; then
    tar -xpf "$kept" -C "$1"
  else
    eval "$(apt-config shell proxy Acquire::http::Proxy)"
    http_proxy=${proxy:-${http_proxy:-}} debootstrap --variant=minbase --include=ca-certificates \
      --arch="$architecture" "$suite" "$1" "$mirror" >"$1.log" 2>&1 || { tail -n 20 "$1.log" >&2; return 1; }
    echo "$sources" >"$1/etc/apt/sources.list"
    apt-config dump | grep -E '^Acquire::[^ ]*(Proxy|Valid-Until)' >"$1/etc/apt/apt.conf.d/90mirror" || true
    rm -f "$1"/var/cache/apt/archives/*.deb
    tar -cpf "$kept.$$" --one-file-system -C "$1" . && mv "$kept.$$" "$kept"
  fi
  [ -z "${TARVO_OWN_MOUNTS:-}" ] || mount -t proc proc "$1/proc" || true
  in_root "$1" apt-get update -qq
}

# in_root FOLDER COMMAND...: there, with nothing of this environment but the way to the mirror. ROOT_USER: not as root.
in_root() { (enter_root "$@"); }
enter_root() {
  local root=$1 variable
  shift
  local kept=("PATH=/usr/sbin:/usr/bin:/sbin:/bin" LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive HOME=/tmp)
  for variable in http_proxy https_proxy no_proxy DEB_BUILD_OPTIONS; do
    [ -z "${!variable:-}" ] || kept+=("$variable=${!variable}")
  done
  exec env -i "${kept[@]}" chroot ${ROOT_USER:+--userspec="$ROOT_USER"} "$root" "$@"
}

# install_in FOLDER PACKAGE...
install_in() {
  in_root "$1" apt-get install -y -qq --no-install-recommends "${@:2}" </dev/null >"$1.log" 2>&1 ||
    { tail -n 20 "$1.log" >&2; return 1; }
}

# remove_root FOLDER
remove_root() {
  ! mountpoint -q "$1/proc" || umount -l "$1/proc"
  rm -rf --one-file-system "$1" "$1.log"
}
