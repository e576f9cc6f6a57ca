#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes the Debian packages in build/library and tries them: lintian, then the consumer project
# against the unpacked packages and against an installed prefix.
#
# usage: scripts/package.sh
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh build docs package
build=build/library
work=build/package
rm -rf $build/*.deb $work
mkdir -p $work
cmake -S . -B $build -DBUILD_TESTING=OFF -DCMAKE_INSTALL_PREFIX=/usr -DQRN_BUILD_MAN=ON >/dev/null
cmake --build $build --parallel "$(nproc)" >/dev/null
(cd $build && cpack) >$work/cpack.log 2>&1 || { cat $work/cpack.log >&2; exit 1; }

lintian --allow-root --fail-on error $build/*.deb
for package in "$build"/*.deb; do
    dpkg-deb -x "$package" $work/root
done
./tests/consumer/run.sh $work/root/usr $work/packages
cmake --install $build --prefix "$PWD/$work/prefix" >/dev/null
./tests/consumer/run.sh $work/prefix $work/installed
ls -1 $build/*.deb
