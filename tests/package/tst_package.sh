#!/usr/bin/env bash
# The Debian package, made by cpack from this build: its files and relations, lintian's verdict
# (where lintian is installed), an install into a throw-away root with dpkg --root, the installed
# agent recording a take for the reference control room, and a removal that leaves the users'
# recordings where they are.   tst_package.sh BUILD_DIR SOURCE_DIR
set -uo pipefail
build=$1 src=$2
work=$(mktemp -d /tmp/brava-package.XXXXXX)
trap 'rm -rf "$work"' EXIT
fails=0
check() { # check "what" command...: one line per check, the failures counted
  if "${@:2}"; then echo "PASS: $1"; else echo "FAIL: $1"; fails=$((fails + 1)); fi
}
has() { grep -q -- "$2" <<<"$1"; }

(cd "$build" && cpack -G DEB -B "$work/out") >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; echo "FAIL: cpack"; exit 1; }
deb=$(ls "$work"/out/brava-recorder_*.deb)
info=$(dpkg-deb --info "$deb")
files=$(dpkg-deb --contents "$deb" | awk '{ $1 = $2 = $3 = $4 = $5 = ""; sub(/^ +/, ""); print }')
depends=$(dpkg-deb --field "$deb" Depends)

# --- Files and relations -------------------------------------------------------------------
for f in ./usr/lib/brava-recorder/brava-recorder ./usr/lib/brava-recorder/Info.ini ./usr/bin/brava-control-room \
         "./usr/bin/brava-recorder -> ../lib/brava-recorder/brava-recorder" ./etc/xdg/autostart/brava-recorder.desktop \
         ./usr/share/applications/brava-recorder.desktop ./usr/share/icons/hicolor/scalable/apps/brava-recorder.svg \
         ./usr/share/doc/brava-recorder/copyright ./usr/share/doc/brava-recorder/changelog.Debian.gz \
         ./usr/share/man/man1/brava-recorder.1.gz ./usr/share/man/man1/brava-control-room.1.gz; do
  check "holds $f" grep -qxF -- "$f" <<<"$files"
done
for icon in "$src"/src/app/icons/*.svg; do
  [ -e "$icon" ] && check "holds the tray icon $(basename "$icon")" has "$files" "hicolor/scalable/status/.*$(basename "$icon")"
done
# Library relations come from dpkg-shlibdeps (with versions), plugins loaded by name are listed.
for rel in 'libqt6core6 (>=' 'libpulse0 (>=' 'libavcodec59 (>=' 'libc6 (>=' qml6-module-qtquick-controls qt6-qpa-plugins; do
  check "depends on $rel" has "$depends" "$rel"
done
check "the autostart entry is a conffile" has "$(dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles)" '^/etc/xdg/autostart/brava-recorder.desktop$'

# --- lintian ----------------------------------------------------------------------------------
if command -v lintian >/dev/null; then
  lintian --display-info --fail-on error,warning "$deb" >"$work/lintian.txt" 2>&1
  check "lintian: no error, no warning" test $? -eq 0
  sed 's/^/  lintian: /' "$work/lintian.txt"
else
  echo "SKIP: lintian is not installed"
fi

# --- Installed into a throw-away root ---------------------------------------------------------
root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
# The root holds no other package, so the relations checked above cannot be met there.
dpkg=(quietly dpkg --root="$root" --log="$work/dpkg.log" --force-not-root --force-depends --force-script-chrootless)
quietly() { "$@" >"$work/out.txt" 2>&1 || { cat "$work/out.txt"; return 1; }; }
check "dpkg --root installs it" "${dpkg[@]}" --install "$deb"
installed=$(cat "$root/usr/lib/brava-recorder/Info.ini")
check "the installed Info.ini says the package manages it" has "$installed" '^PackageManaged=true$'
version=$(sed -n 's/^CFBundleShortVersionString=//p' <<<"$installed")-$(sed -n 's/^CFBundleVersion=//p' <<<"$installed")
check "the package version is the build's ($version)" test "$(dpkg-deb --field "$deb" Version)" = "$version"
check "the build tree's Info.ini does not" test -z "$(grep PackageManaged "$build/Info.ini")"

# The installed agent (started through its /usr/bin link) records a take for the reference room.
demo=$work/demo
check "the installed agent records and uploads a take" env BRAVA_BUILD_DIR="$build" BRAVA_TEST_NO_BUILD=1 \
  "$src/scripts/demo" --check --agent "$root/usr/bin/brava-recorder" --work "$demo"
check "the installed agent writes no autostart entry of its own" test ! -e "$demo/agent1/config/autostart"

# Removing the package leaves the user's data folder alone (and the edited conffile until purge).
check "dpkg --root removes it" "${dpkg[@]}" --remove brava-recorder
check "the programs are gone" test ! -e "$root/usr/lib/brava-recorder/brava-recorder" -a ! -L "$root/usr/bin/brava-recorder"
check "the user's data folder stays" test -s "$demo/agent1/data/Brava Recorder/log.txt"
check "dpkg --root purges it" "${dpkg[@]}" --purge brava-recorder
check "the autostart entry goes with the purge" test ! -e "$root/etc/xdg/autostart/brava-recorder.desktop"

echo "$fails check(s) failed"
[ "$fails" -eq 0 ]
