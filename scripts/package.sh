#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes the Debian packages in build/package and tries them: lintian, then the consumer project
# against the unpacked packages and against an installed prefix.
#
# usage: scripts/package.sh
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh build docs package
build=build/package
rm -rf $build/*.deb $build/root $build/prefix $build/consumer
cmake -S . -B $build -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DQRN_BUILD_MAN=ON \
    -DBUILD_TESTING=OFF -DQRN_BUILD_TOOLS=OFF -DQRN_BUILD_EXAMPLES=OFF >/dev/null
cmake --build $build --parallel "$(nproc)" >/dev/null
(cd $build && cpack >cpack.log) || { cat $build/cpack.log >&2; exit 1; }

lintian --allow-root --fail-on error $build/*.deb
for package in "$build"/*.deb; do
    dpkg-deb -x "$package" $build/root
done
./tests/consumer/run.sh $build/root/usr $build/consumer/packages
cmake --install $build --prefix "$PWD/$build/prefix" >/dev/null
./tests/consumer/run.sh $build/prefix $build/consumer/prefix
ls -1 $build/*.deb
