#!/bin/bash
# Builds the Debian packages and the archive for systems without a package manager, from the current
# commit, and checks both:
#
#   package.sh                the architecture of this machine, and the source package, into
#                             build/package/
#   package.sh --host=arm64   another one, by its name in Debian: a cross build into
#                             build/package-arm64/. Use it in a Debian of its own (in-debian.sh)
#   package.sh --portable     only the archive that runs on old systems: see portable.sh
set -euo pipefail
cd "$(dirname "$0")/.."
host=
case "$*" in
  --portable | "--portable "*) exec scripts/portable.sh "${@:2}" ;;
  --host=arm64) host=${1#--host=} ;;
  "") ;;
  *)
    echo "usage: scripts/package.sh [--host=arm64 | --portable [--host=ARCHITECTURE]]" >&2
    exit 2
    ;;
esac
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
umask 022  # the archive keeps the modes of its folders

results=$PWD/build/package${host:+-$host}
source=$results/source/ktclientd

if [[ $host ]]; then
  scripts/setup.sh --host="$host"
  what=(--build=binary --host-arch="$host" "--build-profiles=cross,nocheck")
  # The checks run programs, and build one that links the libraries.
  export KTCLIENTD_EMULATOR=qemu-aarch64-static
  checkToolchain=(CMAKE_TOOLCHAIN_FILE="$PWD/cmake/$host.cmake")
else
  scripts/setup.sh --package
  what=(--build=full)
  checkToolchain=()
fi
rm -rf "$results"
mkdir -p "$source"
git archive HEAD | tar --extract --directory="$source"
if [[ -n $(git status --porcelain) ]]; then
  echo "package: uncommitted changes are left out"
fi

build() {
  cd "$source"
  dpkg-buildpackage --unsigned-source --unsigned-changes "${what[@]}" \
    --jobs="$CMAKE_BUILD_PARALLEL_LEVEL" || return
  asRoot=()
  [[ $EUID -eq 0 ]] || asRoot=(fakeroot)
  "${asRoot[@]}" cpack --config obj-*/CPackConfig.cmake -B "$results/source/archive"
}
(build) >"$results/build.log" 2>&1 || {
  tail --lines=50 "$results/build.log" >&2
  exit 1
}
mv "$results"/source/ktclientd*.* "$results"/source/archive/*.tar.gz "$results"
rm -rf "$results/source"

# Warnings make it fail; findings of lower severity are only shown.
lintian --allow-root --info --pedantic --display-info --fail-on=error,warning \
  "$results"/*.changes
env KTCLIENTD_PACKAGES="$results" "${checkToolchain[@]}" \
  python3 -B -m unittest discover --start-directory tests/packaging
ls -l "$results"
