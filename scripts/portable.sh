#!/bin/bash
# Builds the archive for old systems, and those without a package manager, from the current commit;
# checks it, and leaves it in build/portable/. `package.sh --portable` calls this script.
#
#   portable.sh                the architecture of this machine
#   portable.sh --host=arm64   another one, by its name in Debian
#
# Clang builds it on this machine, with the C library and libc++ of Debian 11. Their packages are
# unpacked in build/trees/ and not run. Debian 11 itself has neither the CMake nor the libraries
# that are only headers (nlohmann-json, CLI11, utfcpp) in the versions that the tree needs: those
# come from this machine. Needs root.
set -euo pipefail
self=$(realpath "$0")
cd "$(dirname "$self")/.."
if [[ $EUID -ne 0 ]]; then
  exec sudo "$self" "$@"
fi
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
umask 022

suite=bullseye
newestGlibc=2.18  # that a symbol may need

scripts/setup.sh --portable
architecture=$(dpkg --print-architecture)
case "$*" in
  "") ;;
  --host=?*) architecture=${1#--host=} ;;
  *)
    echo "usage: scripts/portable.sh [--host=ARCHITECTURE]" >&2
    exit 2
    ;;
esac
processor=$(dpkg-architecture --host-arch "$architecture" --query DEB_HOST_GNU_CPU 2>/dev/null)
results=$PWD/build/portable
work=$results/$processor
source=$work/source
build=$work/build

sysroot=$(scripts/debian-tree.sh --unpack sysroot "$suite" "$architecture" \
  libc6-dev,linux-libc-dev,libgcc-10-dev,libc++-16-dev,libc++abi-16-dev)

rm -rf "$work" "$results"/ktclientd-*-linux-"$processor".tar.gz
mkdir -p "$source" "$work/headers"
# The packages that are only headers, and their files for CMake.
dpkg --listfiles nlohmann-json3-dev libcli11-dev libutfcpp-dev |
  grep -E '^/usr/(include|share/.*cmake|lib/.*/cmake)/.*\.[a-z]+$' |
  tar --create --files-from=- --absolute-names --dereference |
  tar --extract --directory="$work/headers" --transform='s,^/,,' --absolute-names

git archive HEAD | tar --extract --directory="$source"
if [[ -n $(git status --porcelain) ]]; then
  echo "portable: uncommitted changes are left out"
fi
SOURCE_DATE_EPOCH=$(git log --max-count=1 --format=%ct)
export SOURCE_DATE_EPOCH

buildPrograms() {
  cmake -S "$source" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$source/cmake/portable.cmake" \
    -DKTCLIENTD_SYSROOT="$sysroot" -DKTCLIENTD_HEADERS="$work/headers" \
    -DCMAKE_SYSTEM_PROCESSOR="$processor" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_INSTALL_PREFIX=/usr/local -DBUILD_TESTING=OFF \
    -DKTCLIENTD_GLIB=OFF -DKTCLIENTD_REPORT=OFF -DKTCLIENTD_LIBSYSTEMD=OFF &&
    cmake --build "$build" &&
    DESTDIR=$work/installed cmake --install "$build" --component runtime
}
buildPrograms >"$work.log" 2>&1 || {
  tail --lines=50 "$work.log" >&2
  exit 1
}

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:.*=//p' "$build/CMakeCache.txt")
name=ktclientd-$version-linux-$processor
content=$work/$name
mkdir "$content"
mv "$work/installed/usr/local" "$content/files"

# Settings that an older systemd does not know, and warns of, become drop-ins, with their comments.
units=$content/files/lib/systemd/system
mkdir "$units/ktclientd.service.d"
awk -v folder="$units/ktclientd.service.d" '
  BEGIN {
    since["ProtectProc"] = since["ProcSubset"] = 247
    since["PrivateIPC"] = since["ExecPaths"] = since["NoExecPaths"] = 248
  }
  /^#/ { comment = comment $0 "\n"; next }
  {
    key = $0
    sub(/=.*/, "", key)
    if (!(key in since)) {
      printf "%s%s\n", comment, $0
    } else {
      file = folder "/since-" since[key] ".conf"
      if (!(file in begun)) print "[Service]" >file
      begun[file]
      printf "%s%s\n", comment, $0 >file
    }
    comment = ""
  }' "$units/ktclientd.service" >"$work/ktclientd.service"
mv "$work/ktclientd.service" "$units/ktclientd.service"

# The programs need only the C library, and no newer one.
glibc=0
for program in bin/ktclientctl sbin/ktclientd; do
  program=$content/files/$program
  needed=$(readelf --dynamic --wide "$program" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  if others=$(grep -vE '^(lib(c|m|dl|rt|pthread)\.so\.[0-9]|ld-linux.*)$' <<<"$needed"); then
    echo "portable: ${program##*/} needs ${others//$'\n'/ }" >&2
    exit 1
  fi
  versions=$(readelf --version-info --wide "$program" | grep -oE 'Name: [A-Z]+[A-Z_0-9.]*')
  if others=$(grep -vE ' GLIBC_[0-9.]+$' <<<"$versions"); then
    echo "portable: ${program##*/} needs ${others//$'\n'/ }" >&2
    exit 1
  fi
  glibc=$(sed 's/.*GLIBC_//' <<<"$versions"$'\n'"$glibc" | sort --version-sort | tail --lines=1)
done
if [[ $(printf '%s\n' "$glibc" "$newestGlibc" | sort --version-sort | tail --lines=1) != \
  "$newestGlibc" ]]; then
  echo "portable: the programs need glibc $glibc" >&2
  exit 1
fi
scripts/check-hardening "$content"/files/{bin/ktclientctl,sbin/ktclientd}

cp "$source/packaging/portable/install.sh" "$content"
sed "s/@VERSION@/$version/; s/@ARCHITECTURE@/$processor/; s/@GLIBC@/$glibc/" \
  "$source/packaging/portable/README.in" >"$content/README"
archive=$results/$name.tar.gz
tar --create --directory="$work" --sort=name --format=ustar --owner=root:0 --group=root:0 \
  --mtime="@$SOURCE_DATE_EPOCH" "$name" | gzip --no-name --best >"$archive"
echo "glibc $glibc, $(stat --format=%s "$archive") bytes: ${archive#"$PWD"/}"
