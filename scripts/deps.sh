#!/bin/sh
# Installs the Debian 12 packages named in the given lists (one package per
# line, # starts a comment), or, when not root, prints the exact command and
# stops. Each list sits beside the build files that need its packages.
# Usage: deps.sh LIST...
set -eu
cd "$(dirname "$0")/.."
need=$(sed -e 's/#.*//' "$@" | tr -s ' \t\n' ' ')
missing=""
for pkg in $need; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" ||
    missing="$missing $pkg"
done
[ -z "$missing" ] && exit 0
# A package of another architecture (libc6:i386) needs that architecture
# added to dpkg first.
foreign=$(printf '%s\n' $missing | sed -n 's/^[^:]*:\(.*\)$/\1/p' | sort -u)
for arch in $foreign; do
  dpkg --print-foreign-architectures | grep -qx "$arch" && continue
  if [ "$(id -u)" -ne 0 ]; then
    echo "Add the $arch architecture with: sudo dpkg --add-architecture $arch"
    exit 1
  fi
  dpkg --add-architecture "$arch"
done
if [ "$(id -u)" -eq 0 ]; then
  echo "Installing:$missing"
  # An index that fails to download (a mirror in sync) need not stop the
  # install: the packages may well come from the others.
  apt-get update -qq || echo "apt-get update reported errors; installing anyway"
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq$missing
else
  echo "Missing packages:$missing"
  echo "Install them with:"
  echo "  sudo apt-get update && sudo apt-get install -y$missing"
  exit 1
fi
