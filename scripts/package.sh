#!/bin/bash
# Builds the Debian packages, their source package, and the archive for systems without a package
# manager, from the current commit; checks both, and leaves them in build/package/. With --portable it
# makes only the archive that runs on old systems: see portable.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
if [[ ${1-} == --portable ]]; then
  exec scripts/portable.sh "${@:2}"
elif [[ $# -gt 0 ]]; then
  echo "usage: scripts/package.sh [--portable [--host=ARCHITECTURE]]" >&2
  exit 2
fi
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
umask 022  # the archive keeps the modes of its folders

results=$PWD/build/package
source=$results/source/ktclientd

scripts/setup.sh --package
rm -rf "$results"
mkdir -p "$source"
git archive HEAD | tar --extract --directory="$source"
if [[ -n $(git status --porcelain) ]]; then
  echo "package: uncommitted changes are left out"
fi

build() {
  cd "$source"
  dpkg-buildpackage --unsigned-source --unsigned-changes --build=full \
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
KTCLIENTD_PACKAGES=$results python3 -B -m unittest discover --start-directory tests/packaging
ls -l "$results"
