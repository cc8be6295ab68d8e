# Sourced: compile NAME COMPILER [ARGUMENTS...] as docs/objc.md says, with every warning an error.
# GNUstep's headers are not ours; neither are the folders of the person who builds.
compile() {
  local name=$1 compiler=$2 flags blocks=()
  shift 2
  command -v "$compiler" >/dev/null || { echo "skipped: $compiler is not installed"; exit 77; }
  flags=$(gnustep-config --objc-flags | tr ' ' '\n' | grep -vE '^(-MMD|-MP|-I\.|-g|-O2|-I/root.*|-I/home.*)$' | sed 's/^-I/-isystem/')
  if [ "$compiler" = clang ]; then
    [ -f /usr/include/Block.h ] || { echo "skipped: libblocksruntime-dev is not installed"; exit 77; }
    blocks=(-fobjc-runtime=gcc -fblocks -idirafter "$(gcc -print-file-name=include)" -lBlocksRuntime)
  fi
  # shellcheck disable=SC2046,SC2086
  "$compiler" $flags -std=gnu11 -Wall -Wextra -Wno-unused-parameter -Werror "$@" "${blocks[@]}" $(gnustep-config --base-libs) -o "$name"
}
