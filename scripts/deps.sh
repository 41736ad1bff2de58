#!/bin/sh
# Installs what the build needs on Debian 12, or, when not root, prints the
# exact command and stops. Usage: deps.sh test|demo
set -eu
need="cmake make g++ g++-multilib googletest binutils pkgconf"
if [ "${1:-test}" = demo ]; then
  need="$need libpng-dev libtinyobjloader-dev"
fi
missing=""
for pkg in $need; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" ||
    missing="$missing $pkg"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" -eq 0 ]; then
  echo "Installing:$missing"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq$missing
else
  echo "Missing packages:$missing"
  echo "Install them with:"
  echo "  sudo apt-get update && sudo apt-get install -y$missing"
  exit 1
fi
