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
