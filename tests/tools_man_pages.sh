#!/bin/bash
# A tool's --help and its manual page list the same options and the same
# exit statuses, and the page has the sections an administrator looks for.
# usage: tools_man_pages.sh TOOL PAGE.1
set -euo pipefail
tool=$1
page=$2
help=$("$tool" --help)
# roff writes a dash as \-; the page's text is its lines less the requests.
text=$(sed -e 's/\\-/-/g' -e 's/\\e/\\/g' "$page")

options() { grep -oE '(^|[^[:alnum:]-])--?[a-z][a-z-]*' | grep -oE -- '--?[a-z][a-z-]*' | sort -u; }
help_options=$(options <<<"$help")
page_options=$(sed -n '/^\.SH OPTIONS/,/^\.SH /p' <<<"$text" | options)
synopsis_options=$(sed -n '/^\.SH SYNOPSIS/,/^\.SH /p' <<<"$text" | options)
status=0
report() {
  if [ "$2" != "$3" ]; then
    echo "$1 differ (< --help, > page):"
    diff <(echo "$2") <(echo "$3") || true
    status=1
  fi
}
report "options of OPTIONS" "$help_options" "$page_options"
report "options of SYNOPSIS" "$help_options" "$synopsis_options"

# "Exit status: 0 done, 1 the store failed, ..." against the page's list.
help_codes=$(sed -n '/^Exit status:/,$p' <<<"$help" | grep -oE '(^|[ :,])[0-9]+ [a-z]' | grep -oE '[0-9]+' | sort -u)
page_codes=$(sed -n '/^\.SH EXIT STATUS/,/^\.SH /p' <<<"$text" | sed -n '/^\.TP/{n;s/^\.B \([0-9][0-9]*\)$/\1/p}' | sort -u)
[ -n "$help_codes" ] || { echo "--help names no exit status"; status=1; }
report "exit statuses" "$help_codes" "$page_codes"

for section in NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS" EXAMPLES; do
  grep -q "^\.SH \"\?$section\"\?$" "$page" || { echo "no $section section in $page"; status=1; }
done
[ "$status" -eq 0 ] && echo "$(basename "$tool"): --help and $(basename "$page") agree: $(echo $help_options)"
exit "$status"
