# Shared by demo, check and the benchmarks; sourced from the project's root.

# build PRESET [TARGET...]: configures if needed and builds; shows the output only when it fails.
build() {
  local preset=$1
  shift
  local log="build/$preset.log"
  mkdir -p build
  if ! { cmake --preset "$preset" && cmake --build "build/$preset" ${1:+--target "$@"}; } >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    echo "build of preset $preset failed; the whole output is in $log" >&2
    return 1
  fi
}

# stage NAME COMMAND...: runs a step and says how long it took; ends the script when it fails.
stage_times=()
stage() {
  local name=$1 begin=$SECONDS
  shift
  echo "== $name"
  if ! "$@"; then
    echo "== $name FAILED after $((SECONDS - begin)) s" >&2
    exit 1
  fi
  stage_times+=("$(printf '%5d s  %s' $((SECONDS - begin)) "$name")")
}
