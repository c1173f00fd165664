# Sourced by the scripts beside this file: steps that say one line each, and tell all when they
# fail. Expects the current folder to be the project's.
# shellcheck shell=bash

logs=build/logs
mkdir -p "$logs"
# Compile again only what changed, also across build folders, where ccache is installed.
if command -v ccache >/dev/null; then
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache
  # Without it nothing that includes a precompiled header is found again.
  export CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
fi

# step <title> <command>...: runs the command quietly. Its output is kept in build/logs and shown
# when it fails.
step() {
  local title=$1 log status=0 start=$EPOCHREALTIME
  log=$logs/${title//[^a-zA-Z0-9]/-}.log
  shift
  printf '%-44s' "$title"
  "$@" >"$log" 2>&1 </dev/null || status=$?
  local verdict=ok
  [[ $status -eq 0 ]] || verdict="FAILED, status $status"
  local tenths=$(((${EPOCHREALTIME/[.,]/} - ${start/[.,]/}) / 100000))
  printf '%4d.%d s  %s\n' $((tenths / 10)) $((tenths % 10)) "$verdict"
  if [[ $status -ne 0 ]]; then cat "$log"; fi
  return "$status"
}

# build <preset> [<target>...]: configures where needed, then builds.
build() {
  local preset=$1
  shift
  cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}
}

# Each version of these tools lays out sources its own way and has checks of its own, so that only
# one can be satisfied: Debian 12's.
clang_tools_release=14

# of_release <tool>: whether it is of that version.
of_release() { [[ $("$1" --version) == *"version $clang_tools_release."* ]]; }
