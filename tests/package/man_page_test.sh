#!/usr/bin/env bash
# The man page renders without a groff warning and documents what the tool has: every long option
# of --help, every step of --list-steps, every subcommand and every exit status.
# Arguments: the postclone to ask, the page (roff, or roff compressed with gzip).
set -euo pipefail
postclone=$1 page=$2

warnings=$(zcat -f "$page" | groff -ww -z -man 2>&1)
[ -z "$warnings" ] || { echo "groff warns about $page:"; echo "$warnings"; exit 1; }
# man -l as a reader sees it; hyphenation off and a wide line, so that names are whole words.
text=$(MANWIDTH=200 MAN_KEEP_FORMATTING= man --nh --nj -l "$page" 2>&1 | col -b)
[ -n "$text" ] || { echo "man -l renders nothing"; exit 1; }

missing=()
for option in $("$postclone" --help | grep -o -- '--[a-z][a-z-]*' | sort -u); do
  grep -q -- "$option" <<<"$text" || missing+=("$option")
done
for step in $("$postclone" --list-steps | awk '{ print $2 }'); do
  grep -qw -- "$step" <<<"$text" || missing+=("step $step")
done
for command in "postclone fs" "postclone reg" "postclone bcd show" "postclone windows info"; do
  grep -q -- "$command" <<<"$text" || missing+=("$command")
done
exits=$(sed -n '/^EXIT STATUS/,/^FILES/p' <<<"$text")
for status in 0 1 2; do
  grep -qE "^ +$status +[A-Z]" <<<"$exits" || missing+=("exit status $status")
done
[ ${#missing[@]} -eq 0 ] || { printf 'the man page does not document %s\n' "${missing[@]}"; exit 1; }
