#!/usr/bin/env bash
# Builds the Debian package of Harborlattice with CPack and checks it with
# lintian. Usage: scripts/package.sh [preset] (release by default); the .deb
# lands in target/<preset>/package/. Install it with `apt install ./<file>.deb`.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-release}"
scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
# Only what the package holds (the programs, the terminal document's assets and
# the package's documents), not the tests.
cmake --build --preset "$preset" --target harborlattice harborlattice-node terminal_assets package_documents
build="target/$preset"
rm -f "$build"/package/harborlattice_*.deb
(cd "$build" && cpack -G DEB)
deb="$(ls "$build"/package/harborlattice_*.deb)"
lintian --fail-on error "$deb"
echo "package: $deb"
