#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the reference of the public interface, as HTML and as man pages, in build/docs or in the
# folder given. A public name without documentation is an error.
#
# usage: scripts/docs.sh [FOLDER]
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh docs
export QRN_DOCS=${1:-build/docs}
QRN_VERSION=$(sed -nE 's/^#define QRN_VERSION_[A-Z]+ ([0-9]+)$/\1/p' src/lib/qrn/qrn.h | paste -sd.)
export QRN_VERSION
mkdir -p "$QRN_DOCS"
doxygen docs/Doxyfile
# Doxygen makes a page for each field and file too; only the library's own names become commands.
find "$QRN_DOCS/man/man3" -type f ! -name 'qrn*' ! -name 'QRN*' -delete
echo "docs: $QRN_DOCS/html/index.html, $QRN_DOCS/man/man3"
