#!/bin/bash
# The manual page docs/keldra.8: groff and man format it without a warning,
# it has the sections an administrator looks for, names the project's version,
# and documents every fixed path that the supervisor's sources use.
. "$(dirname "$0")/lib.sh"

page=$source_dir/docs/keldra.8
need_tool groff groff-base
[ -f "$page" ] || abort "$page does not exist"
make_work_dir

note "groff -man -Tutf8 -ww -z"
warnings=$(groff -man -Tutf8 -ww -z "$page" 2>&1)
[ -z "$warnings" ] || fail "groff warns about $page: $warnings"

if command -v man >/dev/null 2>&1; then
    note "man --warnings -l"
    warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "man --warnings warns about $page: $warnings"
elif [ -n "${CI:-}" ]; then
    fail "man not found (apt package man-db); CI is set"
else
    note "man not found (apt package man-db): man --warnings not run"
fi

for section in NAME SYNOPSIS DESCRIPTION DAEMONS FILES SIGNALS "EXIT STATUS" DIAGNOSTICS "SEE ALSO"; do
    grep -Eq "^\.SH \"?$section\"?\$" "$page" || fail "section $section missing"
done

grep -Eq "^\.TH KELDRA 8 [^ ]+ \"keldra $version\"" "$page" ||
    fail ".TH does not name \"keldra $version\": $(grep '^\.TH' "$page")"
grep -Eq '^keldra \\- ' "$page" || fail "NAME line is not 'keldra \\- ...'"

# The synopsis is the bare command: keldra takes no option or argument.
synopsis=$(sed -n '/^\.SH SYNOPSIS$/,/^\.SH /p' "$page" | sed '1d;$d')
[ "$synopsis" = ".B keldra" ] || fail "SYNOPSIS is not the bare command: $synopsis"

# Rendered without hyphenation and line breaks, so that paths stay whole.
text=$work/keldra.txt
groff -man -Tascii -rLL=5000n -P-c -P-b -P-u -P-o "$page" >"$text" 2>/dev/null ||
    abort "groff could not render $page"

# Every absolute path literal of the sources (formats with % aside).
grep -rhoE '"/[^"%]*"' "$source_dir/src" | tr -d '"' | sort -u >"$work/paths"
[ -s "$work/paths" ] || fail "no path literal found in $source_dir/src"
while IFS= read -r path; do
    grep -Fq -- "$path" "$text" || fail "path $path of the sources is not documented"
done <"$work/paths"

# Labels, ids and modes of the daemons.
for word in '/usr/sbin/keldra' 'System::Privileged' 'Smack label System' 'user 401 and group 401' \
    'group 402' 'mode 0775' 'mode 0777' 'mode 0700' 'mode 0060' 'mode 0600' 'mode 0644' \
    'SIGTERM' 'status 0' 'KillMode=process'; do
    grep -Fq -- "$word" "$text" || fail "\"$word\" not found in the rendered page"
done

finish
