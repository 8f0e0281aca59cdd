#!/usr/bin/env bash
# Builds the Debian package from the build folder with CPack, checks it with lintian,
# installs it on this machine with apt-get, runs what it installed, then removes it again and
# checks that none of its files is left. It changes the machine, so scripts/test runs it
# after every other test, and it refuses to start where a tremora package is installed already.
#
#   deb_package.sh BUILD_DIR VERSION README.md
set -euo pipefail

build=$(realpath "$1")
version=$2
readme=$(realpath "$3")

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

[ "$(id -u)" -eq 0 ] || fail "installing a package needs root"
for program in cpack dpkg-deb dpkg-shlibdeps lintian apt-get desktop-file-validate man ffmpeg /usr/bin/python3; do
  command -v "$program" >/dev/null || fail "$program is missing (scripts/test installs it)"
done
if dpkg-query -W -f='${Status}' tremora 2>/dev/null | grep -q 'installed'; then
  fail "a tremora package is installed already; this test would replace and then remove it"
fi

work=$(realpath "$(mktemp -d "${TMPDIR:-/tmp}/tremora-package.XXXXXX")")
installed=""
clean_up() {
  local status=$?
  set +e
  if [ -n "$installed" ] && dpkg-query -W tremora >/dev/null 2>&1; then
    DEBIAN_FRONTEND=noninteractive apt-get remove --purge -y -qq tremora >/dev/null
  fi
  rm -rf "$work"
  exit "$status"
}
trap clean_up EXIT
trap 'exit 130' INT TERM

# --- the package ------------------------------------------------------------------------

(cd "$build" && cpack -G DEB -B "$work/package") >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log" >&2; fail "cpack -G DEB failed"; }
deb="$work/package/tremora_${version}_$(dpkg --print-architecture).deb"
[ -f "$deb" ] || fail "cpack wrote $(ls "$work/package"), not $(basename "$deb")"

field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = tremora ] || fail "package name $(field Package)"
[ "$(field Version)" = "$version" ] || fail "version $(field Version)"
[ "$(field Section)" = video ] || fail "section $(field Section)"
[[ "$(field Maintainer)" =~ ^[^\<]+\ \<[^@\>]+@[^\>]+\>$ ]] || fail "maintainer '$(field Maintainer)' has no address"
[ -n "$(field Description | sed -n 2p)" ] || fail "the description has no long text"
# Read from the executables by dpkg-shlibdeps, not written by hand.
for library in libavcodec libavformat libswscale libopencv-core libqt5core5a libqt5gui5 libqt5widgets5 libc6; do
  grep -q "\b$library" <<<"$(field Depends)" || fail "Depends names no $library: $(field Depends)"
done

contents=$(dpkg-deb -c "$deb" | awk '{ print $6 }' | sed 's|^\./|/|')
for path in /usr/bin/tremora /usr/bin/tremora-map \
  /usr/share/man/man1/tremora.1.gz /usr/share/man/man1/tremora-map.1.gz \
  /usr/share/applications/tremora.desktop \
  /usr/share/icons/hicolor/{16x16,32x32,48x48,64x64,128x128}/apps/tremora.png \
  /usr/share/tremora/manifest.schema.json /usr/share/tremora/combined.schema.json \
  /usr/share/doc/tremora/copyright /usr/share/doc/tremora/changelog.gz; do
  grep -qx "$path" <<<"$contents" || fail "the package holds no $path"
done

# No error at all; a warning only when the README names it with its reason.
lintian --fail-on error "$deb" >"$work/lintian.txt" 2>"$work/lintian.err" || {
  cat "$work/lintian.txt" "$work/lintian.err" >&2
  fail "lintian found errors"
}
cat "$work/lintian.txt"
package_section=$(sed -n '/^### Install as a package/,/^##/p' "$readme")
[ -n "$package_section" ] || fail "the README has no 'Install as a package' section"
while read -r tag; do
  grep -q "\`$tag\`" <<<"$package_section" || fail "lintian warns '$tag', which the README does not explain"
done < <(awk '$1 == "W:" { print $3 }' "$work/lintian.txt" | sort -u)

# --- installed --------------------------------------------------------------------------

(cd "$work/package" && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "./$(basename "$deb")") \
  >"$work/apt.log" 2>&1 || { cat "$work/apt.log" >&2; fail "apt-get install failed"; }
installed=yes
dpkg -L tremora >"$work/files"
grep -qx /usr/bin/tremora-map "$work/files" || fail "dpkg -L tremora does not list /usr/bin/tremora-map"

[ "$(command -v tremora-map)" = /usr/bin/tremora-map ] || fail "tremora-map is not found as /usr/bin/tremora-map"
/usr/bin/tremora-map --version | grep -q "$version" || fail "tremora-map --version: $(/usr/bin/tremora-map --version)"

ffmpeg -hide_banner -loglevel error -nostdin -f lavfi -i "testsrc2=s=160x120:r=25:d=2" \
  -c:v ffv1 "$work/clip.mkv"
/usr/bin/tremora-map --quiet --data --output-dir "$work/maps" "$work/clip.mkv" || fail "the installed tool's map failed"
/usr/bin/python3 - "$work/maps" /usr/share/tremora/manifest.schema.json <<'EOF' || fail "the installed tool's files are wrong"
import json, pathlib, sys
import jsonschema
from PIL import Image
maps, schema = pathlib.Path(sys.argv[1]), json.load(open(sys.argv[2]))
manifest = json.load(open(maps / "clip.json"))
jsonschema.validate(manifest, schema)
assert manifest["outcome"]["status"] == "done", manifest["outcome"]
assert manifest["frames_decoded"] == 50, manifest["frames_decoded"]
assert manifest["summary"]["events_total"] > 0, manifest["summary"]
with Image.open(maps / "clip.png") as image:
    assert image.size == (160, 120), image.size
EOF

desktop-file-validate /usr/share/applications/tremora.desktop || fail "desktop-file-validate rejects the entry"
for page in tremora tremora-map; do
  [ "$(man -w "$page")" = "/usr/share/man/man1/$page.1.gz" ] || fail "man -w $page: $(man -w "$page" 2>&1)"
  man "$page" 2>/dev/null | grep -q "$page" || fail "man $page shows nothing"
done

# --- removed ----------------------------------------------------------------------------

DEBIAN_FRONTEND=noninteractive apt-get remove --purge -y -qq tremora >"$work/apt.log" 2>&1 \
  || { cat "$work/apt.log" >&2; fail "apt-get remove --purge failed"; }
installed=""
dpkg-query -W tremora >/dev/null 2>&1 && fail "dpkg still knows the package"
left=()
while read -r path; do
  [ "$path" = /. ] && continue
  [ -e "$path" ] || [ -L "$path" ] || continue
  # A folder that other packages share stays, like /usr/share/man/man1.
  [ -d "$path" ] && [ ! -L "$path" ] && dpkg-query -S "$path" >/dev/null 2>&1 && continue
  left+=("$path")
done <"$work/files"
[ ${#left[@]} -eq 0 ] || fail "left after removal: ${left[*]}"
echo "package built, checked, installed, run and removed in ${SECONDS}s"
