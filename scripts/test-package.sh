#!/bin/bash
# Boots a minimal Debian in a container, installs the packages there and runs debian/tests/:
#
#   test-package.sh                  the release of this machine, with build/package/
#   test-package.sh trixie           another one; in-debian.sh builds the packages
#   test-package.sh trixie FOLDER    another one, with the packages from FOLDER
#
# The tree of that Debian stays in build/; the container works on a copy in memory. Needs root.
set -euo pipefail
self=$(realpath "$0")
cd "$(dirname "$self")/.."
if [[ $EUID -ne 0 ]]; then
  exec sudo "$self" "$@"
fi

ownSuite=$(. /etc/os-release && echo "$VERSION_CODENAME")
suite=${1:-$ownSuite}
folder=$PWD/build/package-test

scripts/setup.sh --package
architecture=$(dpkg --print-architecture)
made=${2:-$PWD/build/package}
if [[ $# -lt 2 && $suite != "$ownSuite" ]]; then
  scripts/in-debian.sh "$suite" scripts/package.sh
  made=$(scripts/in-debian.sh --folder "$suite")/build/package
fi
packages=("$made"/ktclientd_*.deb "$made"/ktclientd-support_*.deb)
if [[ ! -e ${packages[0]} ]]; then
  echo "test-package: there are no packages; run scripts/package.sh first" >&2
  exit 1
fi

# The packages that the packages and their tests depend on.
wanted=$({
  echo systemd-sysv,dbus,procps,dmidecode
  dpkg-deb --field "${packages[1]}" Depends | sed 's/ktclientd ([^)]*),*//; s/([^)]*)//g; s/ //g'
  sed -n 's/^Depends: @, //p' debian/tests/control | tr --delete ' '
} | paste --serial --delimiters=,)
tree=$(scripts/debian-tree.sh package-test "$suite" "$architecture" "$wanted")

data=$(mktemp --directory)
trap 'rm -rf "$data"' EXIT
trap 'exit 130' INT TERM
cp "${packages[0]}" "$data/package.deb"
cp "${packages[1]}" "$data/support.deb"
scripts/boot-debian.sh "$tree" "$folder/results" "$data" tests/packaging/in_container.sh
