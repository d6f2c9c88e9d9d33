# Sourced by other scripts: the tools whose version matters. Another version of clang-format formats
# differently, and another version of clang-tidy has other findings. The compilers are those that
# the system calls gcc and clang.
# shellcheck shell=bash disable=SC2034 # the other scripts use the variables

clangFormat=clang-format-14
clangTidy=clang-tidy-14

# requireTool TOOL: ends the script if the tool is not installed.
requireTool() {
  if ! command -v "$1" >/dev/null; then
    echo "${0##*/}: this tree is checked with $1, which is not installed." >&2
    echo "${0##*/}: \"scripts/setup.sh --all\" installs it where the release of Debian has it, as" \
      "Debian 12 does." >&2
    exit 1
  fi
}
