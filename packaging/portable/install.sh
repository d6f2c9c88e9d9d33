#!/bin/sh
# Installs ktclientd on a system with systemd, in /usr/local; see README. As root:
#
#   ./install.sh                 installs, or replaces another version; enables the socket
#   ./install.sh --uninstall     removes what it has installed
#   ./install.sh --root=IMAGE    does either of them in the image of a system in a folder
set -eu

fail() {
  echo "install.sh: $1" >&2
  exit 1
}

root=
uninstall=
for argument; do
  case $argument in
    --root=?*) root=${argument#--root=} ;;
    --uninstall) uninstall=yes ;;
    *)
      echo "usage: install.sh [--uninstall] [--root=IMAGE]" >&2
      exit 2
      ;;
  esac
done
here=$(cd "$(dirname "$0")" && pwd)
state=$root/usr/local/lib/ktclientd  # lists what is installed

[ "$(id -u)" -eq 0 ] || fail "needs root"
if [ -z "$root" ]; then
  [ -d /run/systemd/system ] || fail "systemd does not run here"
elif [ ! -d "$root" ]; then
  fail "there is no folder $root"
fi
for folder in /lib /usr/lib; do
  if [ -e "$root$folder/systemd/system/ktclientd.socket" ]; then
    fail "a package has installed ktclientd: remove it first"
  fi
done

control() {
  if [ "$root" ]; then
    systemctl --root="$root" "$@"
  else
    systemctl "$@"
  fi
}

# Prints the id of the group ktclientd, if there is one.
groupId() {
  [ ! -e "$root/etc/group" ] ||
    sed -n 's/^ktclientd:[^:]*:\([0-9]*\):.*/\1/p' "$root/etc/group"
}

# makeFolder FOLDER: with its parents. Takes note of those that it makes.
makeFolder() {
  [ ! -d "$root$1" ] || return 0
  makeFolder "${1%/*}"
  mkdir "$root$1"
  made="$made$1
"
}

# removeFiles LIST: removes the files that LIST names.
removeFiles() {
  while IFS= read -r file; do
    rm -f "$root$file"
  done <"$1"
}

removeAll() {
  [ -e "$state/files" ] || fail "it is not installed"
  # Both fail when an earlier try has removed the units.
  control disable ktclientd.socket || true
  if [ -z "$root" ]; then
    systemctl stop ktclientd.socket ktclientd.service || true
    rmdir /run/ktclientd 2>/dev/null || true
  fi
  id=
  if [ -e "$state/group" ]; then
    id=$(cat "$state/group")
  fi
  removeFiles "$state/files"
  folders=$(sort -r "$state/folders")
  rm -f "$state/files" "$state/folders" "$state/group"
  for folder in $folders; do  # a folder comes after those in it
    rmdir "$root$folder" 2>/dev/null || true
  done
  rm -rf "$root/var/log/ktclientd"
  # Another group of this name belongs to somebody else.
  if [ "$id" ] && [ "$id" = "$(groupId)" ]; then
    for file in group gshadow; do
      [ ! -e "$root/etc/$file" ] || sed -i '/^ktclientd:/d' "$root/etc/$file"
    done
  fi
  [ "$root" ] || systemctl daemon-reload
}

# The number of systemd's version in the image: no program of the image needs to run.
systemdVersion() {
  for folder in "$root"/lib/systemd "$root"/usr/lib/systemd "$root"/usr/lib/*/systemd; do
    for library in "$folder"/libsystemd-shared-*.so; do
      [ -e "$library" ] || continue
      version=${library##*/libsystemd-shared-}
      echo "${version%%[!0-9]*}"
      return
    done
  done
  echo 0
}

# put FILE MODE: copies FILE of the archive to its place. A program that runs can be replaced.
put() {
  target=$root/usr/local/$1
  folder=/usr/local/$1
  makeFolder "${folder%/*}"
  cp "$here/files/$1" "$target.new"
  chmod "$2" "$target.new"
  chown 0:0 "$target.new"
  mv -f "$target.new" "$target"
  echo "/usr/local/$1" >>"$state/files.new"
}

installAll() {
  umask 022
  made=
  makeFolder /usr/local/lib/ktclientd
  rm -f "$state/files.new"
  (cd "$here/files" && find . -type f | sort) >"$state/found"
  version=$(systemdVersion)
  while IFS= read -r file; do
    file=${file#./}
    case $file in
      # Settings of the sandbox that an older systemd would warn of.
      */since-*.conf)
        needed=${file##*/since-}
        [ "$version" -ge "${needed%.conf}" ] || continue
        ;;
    esac
    mode=644
    [ ! -x "$here/files/$file" ] || mode=755
    put "$file" "$mode"
  done <"$state/found"
  rm -f "$state/found"
  if [ -e "$state/files" ]; then  # another version: what this one does not have
    grep -vxF -f "$state/files.new" "$state/files" >"$state/old" || true
    removeFiles "$state/old"
    rm -f "$state/old"
  fi
  mv "$state/files.new" "$state/files"
  printf '%s' "$made" >>"$state/folders"

  if [ -z "$(groupId)" ]; then
    echo "g ktclientd - -" | systemd-sysusers ${root:+"--root=$root"} -
    groupId >"$state/group"
  fi
  [ "$root" ] || systemctl daemon-reload
  control enable ktclientd.socket
  # Also restarts a daemon that runs.
  [ "$root" ] || systemctl restart ktclientd.socket
}

if [ "$uninstall" ]; then
  removeAll
else
  installAll
fi
