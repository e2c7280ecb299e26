#!/usr/bin/env bash
# The functions that several scripts share. A script sources this file before it changes its folder. Bash 3.2 suffices.
# shellcheck disable=SC2034,SC2154  # variables of this file and of theirs

case $0 in
  /*) script=$0 ;;
  *) script=$PWD/$0 ;;
esac

# Prints the comment that opens the script, and ends the script.
usage() {
  awk 'NR > 1 { if (!/^#/) exit; sub(/^# ?/, ""); print }' "$script" >&2
  exit 2
}

fail() {
  echo "${script##*/}: $*" >&2
  exit 1
}

# quietly COMMAND ...: writes the output to the file $log. If the command fails, prints the output and ends the script.
quietly() { "$@" >"$log" 2>&1 || { cat "$log" >&2; exit 1; }; }

show() { printf '$ %s\n' "$*"; "$@"; }

# wait_until COMMAND ...: retries the command until it succeeds; fails after 100 attempts, which wait 0.05 s each.
wait_until() {
  local _
  for _ in $(seq 100); do
    "$@" >/dev/null 2>&1 && return
    sleep 0.05
  done
  echo "Timed out waiting for: $*" >&2
  return 1
}

# team_of BUILD_FOLDER: prints the team whose certificates the programs of that build accept.
team_of() { sed -n 's/^QUORVANE_TEAM_ID:STRING=//p' "$1/CMakeCache.txt"; }

# Prints the project's version. Only the CMakeLists.txt beside this folder sets it.
project_version() { sed -nE 's/^project\(.* VERSION ([0-9.]+) .*/\1/p' "${script%/*}/../CMakeLists.txt"; }

# The prefix of a command with clang 14's sanitizers: their shadow memory does not fit if the kernel randomises addresses by
# more than 28 bits.
unrandomised=()
if setarch "$(uname -m)" -R true 2>/dev/null; then unrandomised=(setarch "$(uname -m)" -R); fi
