#!/usr/bin/env bash
# What several scripts share. They source it before they change the folder. Bash 3.2 understands it.
# shellcheck disable=SC2034,SC2154  # variables of this file and of theirs

case $0 in
  /*) script=$0 ;;
  *) script=$PWD/$0 ;;
esac

# Ends the script with the comment that opens it.
usage() {
  awk 'NR > 1 { if (!/^#/) exit; sub(/^# ?/, ""); print }' "$script" >&2
  exit 2
}

fail() {
  echo "${script##*/}: $*" >&2
  exit 1
}

# quietly COMMAND ...: what it said, which goes to the file $log, is shown only if it failed; and then the script ends.
quietly() { "$@" >"$log" 2>&1 || { cat "$log" >&2; exit 1; }; }

show() { printf '$ %s\n' "$*"; "$@"; }

# wait_until COMMAND ...: until it succeeds, five seconds at most.
wait_until() {
  local _
  for _ in $(seq 100); do
    "$@" >/dev/null 2>&1 && return
    sleep 0.05
  done
  echo "Waited in vain for: $*" >&2
  return 1
}

# team_of BUILD_FOLDER: whose certificates what was built there accepts.
team_of() { sed -n 's/^QUORVANE_TEAM_ID:STRING=//p' "$1/CMakeCache.txt"; }

# The project's version, which stands in the CMakeLists.txt beside this folder and nowhere else.
project_version() { sed -nE 's/^project\(.* VERSION ([0-9.]+) .*/\1/p' "${script%/*}/../CMakeLists.txt"; }

# What to put in front of a program with clang 14's sanitizers: they cannot place their shadow memory under a kernel that
# randomises addresses by more than 28 bits.
unrandomised=()
if setarch "$(uname -m)" -R true 2>/dev/null; then unrandomised=(setarch "$(uname -m)" -R); fi
