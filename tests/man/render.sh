#!/bin/bash
# The manual page of every installed tool: it exists, renders without a
# single warning, and names every option the tool's --help names.
#   render.sh MAN_DIR TOOL_DIR TOOL...
# Exits 77 (skipped) when neither groff nor man is installed.
set -uo pipefail
man_dir=$1 tool_dir=$2
shift 2
if command -v groff >/dev/null; then
    render() { groff -man -ww -z "$1" 2>&1; }
elif command -v man >/dev/null; then
    render() { MANWIDTH=80 man --warnings -l "$1" 2>&1 >/dev/null; }
else
    echo "skipped: neither groff nor man is installed (apt-get install groff-base)"
    exit 77
fi
status=0
for tool in "$@"; do
    page=$man_dir/$tool.1
    if [ ! -f "$page" ]; then
        echo "$tool: no manual page $page"; status=1; continue
    fi
    warnings=$(render "$page")
    [ -z "$warnings" ] || { echo "$tool: $page renders with warnings:"; echo "$warnings"; status=1; }
    # Every --option of the usage, written in roff (each '-' as '\-').
    for opt in $("$tool_dir/$tool" --help | grep -o -- '--[a-z][a-z-]*' | sort -u); do
        grep -qF -- "${opt//-/\\-}" "$page" || { echo "$tool: $opt is in --help but not in $page"; status=1; }
    done
done
[ $status = 0 ] && echo "$# manual pages render cleanly and name every option"
exit $status
