#!/bin/bash
# Installs the missing Debian packages that are needed to build, test and check the tree, and those
# that the arguments name. Does and prints nothing when all are installed.
set -euo pipefail

packages=(
  build-essential clang-14 clang-format-14 clang-tidy-14 libclang-rt-14-dev
  cmake ninja-build pkg-config
  nlohmann-json3-dev libcli11-dev libsystemd-dev libglib2.0-dev uuid-dev libutfcpp-dev
  libre2-dev libarchive-dev libgtest-dev libbenchmark-dev
  systemd dmidecode openssl python3 python3-jsonschema strace procps netbase git
  man-db mandoc bash-completion
  debhelper dpkg-dev fakeroot lintian mmdebstrap systemd-container
  "$@"
)

# The query fails when dpkg does not know one of the packages: that one is missing, too.
installed=$(dpkg-query --show --showformat='${db:Status-Status} ${Package}\n' "${packages[@]}" \
  2>/dev/null | sed -n 's/^installed //p' || true)
missing=()
for package in "${packages[@]}"; do
  grep --quiet --line-regexp --fixed-strings -e "$package" <<<"$installed" || missing+=("$package")
done
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

echo "setup: installing ${missing[*]}"
"${asRoot[@]}" apt-get --quiet update </dev/null
"${asRoot[@]}" apt-get --quiet --yes --no-install-recommends install "${missing[@]}" </dev/null
