#!/usr/bin/env bash
# tests/docs/pages.sh SOURCE: the pages agree with the tree: codes, channels, configuration keys, the programs of the
# examples, the sources that a port supplies.
set -euo pipefail
shopt -s globstar
cd "$1"

failed=0 checked=0
fail() { echo "$*" >&2; failed=1; }
mentions() { checked=$((checked + 1)); grep -qF -- "$2" "docs/$1" || fail "docs/$1 doesn't mention: $2"; }
# A smaller number would mean that this script did not find them.
at_least() { [ $checked -ge "$1" ] || fail "only $checked $2"; checked=0; }

while read -r name number; do
    mentions errors-and-logging.md "| $((number)) | \`$name\` |"
done < <(for header in Exception/ErrorCode.h Log/MessageType.h; do
    sed -nE '/ Value : /,/\};/s/^ +(\w+) = (\w+).*/\1 \2/p' "libkrt/Krt/$header"
done)
at_least 27 "codes and channels"

while read -r key; do
    mentions configuration.md "| \`$key\` |"
done < <(cat {libkrt,Backup,agent}/**/*.cpp | tr '\n' ' ' | grep -oP '\(\s*"configuration",\s*"\K\w+' | sort -u)
at_least 5 "keys"

# Each program of a page is in the example that the page links last before it, with other indentation.
flat() { sed -E 's/^\s+|\s+$//g; /^$/d' "$@"; }
link='\]\((\.\./)?(examples/[a-z-]+\.cpp)\)' shown=
for page in docs/api.md README.md; do
    example='' program=''
    while IFS= read -r line; do
        if [[ $line =~ $link ]]; then
            example=${BASH_REMATCH[2]}
        elif [ "$line" = '```cpp' ]; then
            program=$'\n'
        elif [ "$line" = '```' ] && [ -n "$program" ]; then
            [[ $'\n'$(flat "$example")$'\n' == *"$program"* ]] || fail "$page shows what isn't in $example:$program"
            shown+=" $example" program=''
        elif [ -n "$program" ]; then
            program+=$(flat <<<"$line")${line:+$'\n'}
        fi
    done <"$page"
done
for example in examples/*.cpp; do
    [[ $shown == *" $example"* ]] || fail "no page shows $example"
done

for source in {libkrt/Krt,Backup,agent}/**/Linux/*.cpp; do
    folder=${source%/Linux/*} name=${source##*/}
    [[ $name == *ystemd* || -e $folder/Mac/$name ]] || fail "$source has no counterpart"
    mentions porting.md "\`${folder#libkrt/Krt/}/{Linux,Mac}\`"
done
at_least 8 "sources of Linux"
while read -r header; do
    [ -e "$header" ] || [ -e "libkrt/$header" ] || fail "docs/porting.md mentions $header"
done < <(sed -nE 's/^\| .([A-Za-z0-9/]+\.h). \|.*/\1/p' docs/porting.md)
exit $failed
