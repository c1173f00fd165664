#!/usr/bin/env bash
# check_install.sh <build folder> <compiler>: installs the build into a folder of its own, moves
# that folder, and builds and runs a program against it, once through the CMake package and once
# through pkg-config. Also checks that each installed header compiles on its own.
set -euo pipefail
build=$1 compiler=$2
sources=$(dirname "$(readlink -f "$0")")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/prefix"
prefix=$work/prefix
test -x "$prefix/bin/vpn_relauncher"
test -s "$prefix/share/man/man1/vpn_relauncher.1"
"$prefix/bin/velumctl" --version >/dev/null
test -s "$prefix/share/bash-completion/completions/velumctl"
test -s "$prefix/lib/tmpfiles.d/velum.conf"

cd "$prefix/include"
mkdir "$work/include"
find Velum -name '*.h' | sort | sed 's/.*/#include "&"/' >"$work/include/all_headers.h"
test -s "$work/include/all_headers.h"
export compiler
# shellcheck disable=SC2016  # expanded by the inner shell
xargs -P "$(nproc)" -d '\n' -n 1 sh -c \
  'echo "$0" | "$compiler" -std=c++20 -fsyntax-only -I. -x c++ -' <"$work/include/all_headers.h"

expect_output() {
  local output
  output=$("$1")
  [[ $output == "I: ("*") Linked against Velum" ]] || {
    echo "$1 printed: $output" >&2
    return 1
  }
}

cmake -S "$sources" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="-I$work/include" >"$work/log" ||
  { cat "$work/log"; exit 1; }
cmake --build "$work/build" >"$work/log" || { cat "$work/log"; exit 1; }
expect_output "$work/build/consumer"

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name velum.pc)")
export PKG_CONFIG_PATH
packages=(velum-storage velum-messaging velum-telemetry velum-certificates velum-ui)
read -ra cflags < <(pkg-config --cflags "${packages[@]}")
read -ra libs < <(pkg-config --libs "${packages[@]}")
"$compiler" -std=c++20 -I"$work/include" "${cflags[@]}" "$sources/consumer.cpp" "${libs[@]}" \
  -o "$work/consumer"
expect_output "$work/consumer"
