# shellcheck shell=bash
# What the scripts share. Sourced with the tree's top as the working directory.

need_root() {
  [ "$(id -u)" -eq 0 ] && return
  echo "$1; please run as root." >&2
  exit 1
}

# Configures and builds one preset, saying little unless it fails. Targets may follow.
build_preset() {
  local preset=$1 log
  shift
  local targets=()
  for target in "$@"; do targets+=(--target "$target"); done
  log=$(mktemp)
  echo "Building build/$preset ..."
  if ! { cmake --preset "$preset" && cmake --build --preset "$preset" "${targets[@]}"; } >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    rm -f "$log"
    echo "The build failed." >&2
    exit 1
  fi
  rm -f "$log"
}
