#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that the named groups of work need and that are missing. Without the
# rights to do so it prints the command that would, and fails.
#
# usage: scripts/setup.sh [build] [test] [bench] [docs] [coverage] [package]
#        (default: build test)
set -euo pipefail

declare -A packages=(
    [build]="gcc g++ cmake ninja-build"
    [test]="libgtest-dev libuv1-dev libasio-dev clang clang-format clang-tidy libclang-rt-14-dev binutils
        systemtap-sdt-dev gnuplot-nox shellcheck"
    [bench]="libtbb-dev libconcurrentqueue-dev libglib2.0-dev libasio-dev pkg-config gnuplot-nox valgrind"
    [docs]="doxygen"
    [coverage]="gcovr"
    [package]="pkg-config dpkg-dev lintian abigail-tools"
)

is_installed() {
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

missing=()
for group in "${@:-build test}"; do
    for name in $group; do
        [ -n "${packages[$name]:-}" ] || { echo "setup: no group '$name'" >&2; exit 2; }
        for package in ${packages[$name]}; do
            is_installed "$package" || missing+=("$package")
        done
    done
done
[ ${#missing[@]} -gt 0 ] || exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "setup: packages are missing; install them with" >&2
    echo "  sudo apt-get install --no-install-recommends ${missing[*]}" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
install=(apt-get install -y -q --no-install-recommends "${missing[@]}")
echo "setup: installing ${missing[*]}"
"${install[@]}" >/dev/null || { apt-get update -q >/dev/null && "${install[@]}" >/dev/null; }
