#!/usr/bin/env bash
# Makes the Debian package from a build tree (as scripts/package.sh does), then
# unpacks it and checks its file list, its Depends and lintian's verdict.
# Usage: packaging/tests/package-test.sh <build tree>
set -euo pipefail
build="$(cd "$1" && pwd)"
work="$build/package-test"
rm -rf "$work"
mkdir -p "$work"

(cd "$build" && cpack -G DEB -B "$work" >"$work/cpack.log" 2>&1) || {
  cat "$work/cpack.log" >&2
  exit 1
}
debs=("$work"/harborlattice_*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || { echo "expected one .deb in $work" >&2; exit 1; }
deb="${debs[0]}"

failed=0
fail() { echo "FAIL: $*" >&2; failed=1; }

# Exactly these files, all under /usr.
dpkg-deb -x "$deb" "$work/root"
(cd "$work/root" && find . -type f | sed 's|^\.||' | sort) >"$work/files"
app=com.quarrynotch.harborlattice
cat >"$work/expected" <<LIST
/usr/bin/harborlattice
/usr/bin/harborlattice-node
/usr/share/applications/$app.desktop
/usr/share/doc/harborlattice/changelog.gz
/usr/share/doc/harborlattice/copyright
/usr/share/harborlattice/Terminal/addon-fit.js
/usr/share/harborlattice/Terminal/addon-search.js
/usr/share/harborlattice/Terminal/addon-unicode11.js
/usr/share/harborlattice/Terminal/addon-web-links.js
/usr/share/harborlattice/Terminal/xterm.css
/usr/share/harborlattice/Terminal/xterm.js
/usr/share/icons/hicolor/16x16/apps/$app.png
/usr/share/icons/hicolor/24x24/apps/$app.png
/usr/share/icons/hicolor/32x32/apps/$app.png
/usr/share/icons/hicolor/scalable/apps/$app.svg
/usr/share/man/man1/harborlattice-node.1.gz
/usr/share/man/man1/harborlattice.1.gz
/usr/share/metainfo/$app.metainfo.xml
LIST
LC_ALL=C sort -o "$work/expected" "$work/expected"
LC_ALL=C sort -o "$work/files" "$work/files"
diff -u "$work/expected" "$work/files" >&2 || fail "the package's file list differs from the expected one"

# Depends comes from the programs' shared libraries.
depends="$(dpkg-deb -f "$deb" Depends)"
echo "Depends: $depends"
for library in libc6 libstdc++6 libqt6core6 libqt6widgets6 libqt6webenginewidgets6 libqt6svg6 libsqlite3-0 qt6-qpa-plugins; do
  [[ ", $depends," == *", $library "* || ", $depends," == *", $library,"* ]] || fail "Depends lacks $library"
done
[ "$(dpkg-deb -f "$deb" Architecture)" = "$(dpkg --print-architecture)" ] || fail "Architecture"

# lintian: no errors (warnings are printed, not failed on).
lintian --fail-on error "$deb" >&2 || fail "lintian reports errors"

exit $failed
