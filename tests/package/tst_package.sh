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

# scripts/package makes no package that trusts the repository's test key unless told so, and says
# so before it installs or builds anything.
refusal=$(BRAVA_PACKAGE_DIR="$work/refused" "$src/scripts/package" -DBRAVA_BUILD=2 2>&1 >/dev/null)
check "scripts/package refuses to build without an update key" test $? -eq 2 -a ! -e "$work/refused"
check "and says how to name one" has "$refusal" 'scripts/package -DBRAVA_UPDATE_KEY=/path/to/publisher-public.pem'
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
for rel in 'libqt6core6 (>=' 'libpulse0 (>=' 'libavcodec59 (>=' 'libc6 (>=' qml6-module-qtquick-controls libqt6svg6; do
  check "depends on $rel" has "$depends" "$rel"
done
check "recommends the emoji font" has "$(dpkg-deb --field "$deb" Recommends)" '^fonts-noto-color-emoji, qt6-xdgdesktopportal-platformtheme$'
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
# A user's recording still waiting for its upload, inside the root where a maintainer script reaches.
take="$root/home/u/.local/share/Brava Recorder/pending/s1/mic_1_0_final.m4a"
mkdir -p "${take%/*}" && echo take >"$take"
# The root holds no other package, so the relations checked above cannot be met there.
dpkg=(quietly dpkg --root="$root" --log="$work/dpkg.log" --force-not-root --force-depends --force-script-chrootless)
quietly() { "$@" >"$work/out.txt" 2>&1 || { cat "$work/out.txt"; return 1; }; }
check "dpkg --root installs it" "${dpkg[@]}" --install "$deb"
installed=$(cat "$root/usr/lib/brava-recorder/Info.ini")
check "the installed Info.ini says the package manages it" has "$installed" '^PackageManaged=true$'
version=$(sed -n 's/^CFBundleShortVersionString=//p' <<<"$installed")-$(sed -n 's/^CFBundleVersion=//p' <<<"$installed")
check "the package version is the build's ($version)" test "$(dpkg-deb --field "$deb" Version)" = "$version"
check "the changelog's latest entry is this version" test "$(zcat "$root/usr/share/doc/brava-recorder/changelog.Debian.gz" | sed -n '1s/^brava-recorder (\(.*\)) .*/\1/p')" = "$version"
check "the build tree's Info.ini does not" test -z "$(grep PackageManaged "$build/Info.ini")"
agent=$root/usr/bin/brava-recorder
check "--version names the installed build" sh -c '"$1" --version | grep -qxE "Brava Recorder $2( \(test key\))? \(build $3\)"' _ "$agent" "${version%-*}" "${version##*-}"
check "--help prints its usage and starts nothing" sh -c '"$1" --help | head -n1 | grep -qx "Usage: brava-recorder \[--help\] \[--version\]"' _ "$agent"
check "an unknown option is refused" sh -c '"$1" --bogus 2>&1 >/dev/null | grep -qx "brava-recorder: unknown option --bogus (see --help)"; [ $? -eq 0 ] && { "$1" --bogus 2>/dev/null; [ $? -eq 2 ]; }' _ "$agent"
check "the installed control room names its version" sh -c '[ "$("$1" --version)" = "brava-control-room $2" ]' _ "$root/usr/bin/brava-control-room" "${version%-*}"
check "with no display it says so and ends" sh -c 'out=$(env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM timeout 20 "$1" 2>&1); [ $? -eq 1 ] && printf "%s\n" "$out" | grep -q "^brava-recorder: no display to show on"' _ "$agent"

# The installed agent (started through its /usr/bin link) records a take for the reference room.
demo=$work/demo
check "the installed agent records and uploads a take" env BRAVA_BUILD_DIR="$build" BRAVA_TEST_NO_BUILD=1 \
  "$src/scripts/demo" --check --agent "$root/usr/bin/brava-recorder" --work "$demo"
check "the installed agent writes no autostart entry of its own" test ! -e "$demo/agent1/config/autostart"

# A newer package installed under a running, idle agent: it relaunches itself into the new build.
newer=$work/newer
dpkg-deb --raw-extract "$deb" "$newer"
sed -i 's/^CFBundleVersion=.*/CFBundleVersion=99/' "$newer/usr/lib/brava-recorder/Info.ini"
sed -i "s/^Version: .*/Version: ${version%-*}-99/" "$newer/DEBIAN/control"
quietly dpkg-deb --root-owner-group --build "$newer" "$work/newer.deb"
home=$work/upgrade
mkdir -p "$home/config/Brava Recorder"
printf '[General]\nagentID=5\nagentName=Upgrade\nserver=127.0.0.1:1\nsetupDone=true\n' >"$home/config/Brava Recorder/settings.ini"
agents_here() { grep -lsaF "XDG_DATA_HOME=$home/data" /proc/[0-9]*/environ | sed 's|^/proc/\([0-9]*\)/.*|\1|'; }
XDG_CONFIG_HOME=$home/config XDG_DATA_HOME=$home/data QT_QPA_PLATFORM=offscreen BRAVA_FAKE_CAMERAS=1 \
  "$root/usr/bin/brava-recorder" >/dev/null 2>&1 &
first=$!
log=$home/data/Brava\ Recorder/log.txt
until_ok() { local end=$((SECONDS + $1)); shift; until "$@"; do [ $SECONDS -lt $end ] || return 1; sleep 0.2; done; }
check "the installed agent runs" until_ok 30 test -s "$log"
check "dpkg --root installs the newer package over it" "${dpkg[@]}" --install "$work/newer.deb"
runs_new() { local p; for p in $(agents_here); do [ "$(readlink "/proc/$p/exe")" = "$1" ] && return 0; done; return 1; }
relaunched() { ! kill -0 "$first" 2>/dev/null && runs_new "$root/usr/lib/brava-recorder/brava-recorder"; }
check "the agent relaunches into the new build" until_ok 40 relaunched
check "and says why" grep -q "new version on disk (99)" "$log"
# The new build has started (its handlers are in place before it says so), then it is stopped.
until_ok 30 sh -c '[ "$(grep -c " start: " "$1")" -ge 2 ]' _ "$log" # counted again on every try
for pid in $first $(agents_here); do kill "$pid" 2>/dev/null; done
wait "$first" 2>/dev/null
until_ok 10 test -z "$(agents_here)" || for pid in $(agents_here); do kill -KILL "$pid"; done
check "a stop (SIGTERM) ends it as Quit does" sh -c 'tail -n2 "$1" | grep -q "stopped by SIGTERM" && tail -n1 "$1" | grep -q " quit$"' _ "$log"

# Removing and purging the package leave the user's recordings alone.
check "dpkg --root removes it" "${dpkg[@]}" --remove brava-recorder
check "the programs are gone" test ! -e "$root/usr/lib/brava-recorder/brava-recorder" -a ! -L "$root/usr/bin/brava-recorder"
check "the user's pending recording stays after the removal" test -s "$take"
check "the autostart entry the removal leaves is skipped without the program" grep -qx "TryExec=brava-recorder" "$root/etc/xdg/autostart/brava-recorder.desktop"
check "dpkg --root purges it" "${dpkg[@]}" --purge brava-recorder
check "and after the purge" test -s "$take"
check "the autostart entry goes with the purge" test ! -e "$root/etc/xdg/autostart/brava-recorder.desktop"

echo "$fails check(s) failed"
[ "$fails" -eq 0 ]
