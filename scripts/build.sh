# Sourced by ./demo and ./test: installs what is missing and builds a preset.

# What a fresh Debian 12 needs, git aside.
packages=(ca-certificates cmake g++ ninja-build pkg-config
  libsqlite3-dev libcurl4-openssl-dev libicu-dev nlohmann-json3-dev libplist-dev libgeographiclib-dev libpugixml-dev
  libcli11-dev libcpp-httplib-dev libssl-dev libpq-dev libgtest-dev sqlite3 libjs-leaflet
  libgps-dev libsystemd-dev libtomlplusplus-dev)

install_missing() {
  local missing=() package
  for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  echo "installing: ${missing[*]}" >&2
  local root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "these packages are missing and need root to install: ${missing[*]}" >&2; exit 1; }
    root=(sudo)
  fi
  "${root[@]}" apt-get update -qq >&2
  "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
}

# build PRESET [TARGET...]: quiet when all is well, the whole output otherwise.
build() {
  local preset=$1 log
  shift
  log=$(mktemp)
  echo "building ($preset)" >&2
  if ! { cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}; } >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    exit 1
  fi
  rm -f "$log"
}
