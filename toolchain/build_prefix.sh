#!/usr/bin/env bash
# Makes a Wine prefix that test runs copy, inside the room.
#
#   build_prefix.sh aarch64|x86_64 OUT
set -euo pipefail
arch=$1 out=$2
export WINEPREFIX=$out WINEDEBUG=-all WINEDLLOVERRIDES='mscoree=;mshtml=;winemenubuilder.exe=;winedbg.exe=d'
export QEMU_CPU=cortex-a72
case $arch in
x86_64) enter=() ;;
aarch64) enter=(chroot /rooms/arm64) ;;
esac
wine=(timeout 240 "${enter[@]}" /usr/lib/wine/wine64)
server=(timeout 60 "${enter[@]}" /usr/lib/wine/wineserver)

echo "## first start of Wine"
"${server[@]}" -p
# The first program hands its output to the services that it starts, so it goes to a file.
"${wine[@]}" wineboot --init >/tmp/wineboot.log 2>&1
"${wine[@]}" cmd /c exit 0 >/dev/null 2>&1
echo "## stopping it"
# Written at its end: without the wait the registry files are not there yet.
"${server[@]}" -k || true
"${server[@]}" -w || true
test -s "$out/system.reg"
# No way out of the prefix to the room's own folders except drive Z.
rm -f "$out"/dosdevices/[d-y]:*
