#!/bin/bash
# Installs the missing Debian packages that are needed for
#
#   setup.sh              the release build and its tests; also debug and tsan
#   setup.sh --clang      and the presets clang, asan and fuzz
#   setup.sh --package    and package.sh, test-package.sh and in-debian.sh
#   setup.sh --portable   and portable.sh, test-portable.sh
#   setup.sh --host=arm64 the preset arm64, a cross build. This adds the architecture to dpkg, so use
#                         it in a Debian of its own: in-debian.sh
#   setup.sh --all        and everything else in .ci/run: formatter, linter, browser, valgrind
#
# Does and prints nothing when all are installed. Where a release of Debian has no formatter or linter
# of this version, --all says so.
set -euo pipefail
. "$(dirname "$0")/tools.sh"

packages=(
  build-essential cmake ninja-build pkgconf
  nlohmann-json3-dev libcli11-dev libutfcpp-dev
  systemd dmidecode openssl python3 python3-jsonschema strace procps netbase
  man-db mandoc bash-completion
)
libraries=(
  libsystemd-dev libglib2.0-dev uuid-dev libre2-dev libarchive-dev libgtest-dev libbenchmark-dev
)
clang=(clang libclang-rt-dev llvm)  # llvm: names of functions in the sanitizers' reports
packaging=(debhelper dpkg-dev fakeroot git lintian mmdebstrap systemd-container)
portable=(clang lld llvm mmdebstrap qemu-user-static)
others=(git chromium valgrind)
pinned=("$clangFormat" "$clangTidy")

# Debian 13 has the description of systemd for pkg-config in a package of its own.
separate=()
[[ -e /usr/share/pkgconfig/systemd.pc ]] || separate=(systemd-dev)

host=
case "$*" in
  --host=?*)
    host=${1#--host=}
    # Debian 12 has this package, which is only headers, for each architecture.
    [[ $(. /etc/os-release && echo "${VERSION_ID-}") != 12 ]] || libraries+=(libutfcpp-dev)
    packages+=("${packaging[@]}" "${separate[@]}" "crossbuild-essential-$host" qemu-user-static
      "${libraries[@]/%/:$host}")
    libraries=()
    pinned=()
    ;;
  "") pinned=() ;;
  --clang) packages+=("${clang[@]}") pinned=() ;;
  --package) packages+=("${packaging[@]}" "${separate[@]}") pinned=() ;;
  --portable) packages+=("${portable[@]}") pinned=() ;;
  --all)
    packages+=("${clang[@]}" "${packaging[@]}" "${separate[@]}" "${portable[@]}" "${others[@]}")
    ;;
  *)
    echo "usage: scripts/setup.sh" \
      "[--clang | --package | --portable | --host=ARCHITECTURE | --all]" >&2
    exit 2
    ;;
esac

packages+=("${libraries[@]}")

# lacking PACKAGE...: sets `missing` to those that are not installed. The query fails when dpkg does
# not know one of them.
lacking() {
  local installed package native
  native=$(dpkg --print-architecture)
  missing=()
  installed=$(dpkg-query --show \
    --showformat='${db:Status-Status} ${Package}:${Architecture}\n' "$@" 2>/dev/null |
    sed -nE "s/^installed //; T; s/:(all|$native)\$//; p" || true)
  for package; do
    grep --quiet --line-regexp --fixed-strings -e "$package" <<<"$installed" ||
      missing+=("$package")
  done
}

lacking "${packages[@]}" "${pinned[@]}"
[[ ${#missing[@]} -gt 0 ]] || exit 0

asRoot=()
if [[ $EUID -ne 0 ]]; then
  if ! command -v sudo >/dev/null; then
    echo "setup: as root, install ${missing[*]}" >&2
    exit 1
  fi
  asRoot=(sudo)
fi
asRoot+=(env DEBIAN_FRONTEND=noninteractive)

[[ -z $host ]] || "${asRoot[@]}" dpkg --add-architecture "$host"
"${asRoot[@]}" apt-get --quiet update </dev/null
available=()
for package in "${missing[@]}"; do
  if [[ " ${pinned[*]} ${separate[*]} " == *" $package "* ]] &&
    ! apt-cache show "$package" >/dev/null 2>&1; then
    echo "setup: this release of Debian has no $package"
  else
    available+=("$package")
  fi
done
[[ ${#available[@]} -gt 0 ]] || exit 0
echo "setup: installing ${available[*]}"
"${asRoot[@]}" apt-get --quiet --yes --no-install-recommends install "${available[@]}" </dev/null
