#!/usr/bin/env bash
# Bash completion completes subcommands, options and step names as a user presses TAB.
# Arguments: the postclone to complete for, the completion script.
set -uo pipefail # no -e: compgen returns 1 when nothing matches, as completions do
postclone=$1 script=$2
# shellcheck source=/dev/null
source "$script" || exit 1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
touch "$work/disk.img" "$work/other.img"
cd "$work" || exit 1 # so that no file of the caller matches a subcommand

failures=0
# expect "WANTED" WORD...: completing the last WORD gives exactly WANTED (sorted, blank-separated).
expect()
{
  local wanted=$1
  shift
  COMP_WORDS=("$postclone" "$@")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _postclone
  local got
  got=$(printf '%s\n' "${COMPREPLY[@]}" | sort | xargs)
  if [ "$got" != "$wanted" ]; then
    echo "postclone $*<TAB>: got '$got', wanted '$wanted'"
    failures=$((failures + 1))
  fi
}

expect "gpt-migration grub-config grub-sectors grub-sectors-alt" --enable g
expect "grub-config grub-sectors grub-sectors-alt" --enable = gr
expect "hiberfile" "$work/disk.img" --disable hi
expect "--enable" --ena
expect "--list-steps --log-level" --l
expect "1 2 3" --preset ""
expect "bcd" b
expect "undo" u
expect "--journal-dir" undo --j
expect "cat" fs c
expect "export get recover set" reg ""
expect "show" bcd ""
expect "info" windows ""
expect "--json" windows info --
expect "$work/disk.img" --source "$work/d"
expect "$work/disk.img $work/other.img" --preset 1 "$work/"
[ "$failures" -eq 0 ]
