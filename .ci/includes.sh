#!/usr/bin/env bash
# .ci/includes.sh BUILD: each installed header compiles by itself and includes nothing that it has no use for. What a
# standard or house header brings along needn't be included once more.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$PWD
command -v include-what-you-use >/dev/null || { echo "include-what-you-use is missing (package iwyu)" >&2; exit 1; }

# HEADER INCLUDE: includes that stay. The checker doesn't see what templates and macros need, nor what is handed on to
# callers on purpose.
kept=$(sed 's/ *\(#.*\)*$//' <<'END'
Backup/File/Unix/File.h <sys/stat.h>                        # struct stat for StatFile's callers
Krt/Exception/Raise.h "Krt/Exception/YError.h"              # the statements' macros
Krt/Exception/Raise.h <utility>                             # the statements' macros
Krt/Exception/YError.h "Krt/Log/MessageType.h"              # what GetMessageType is compared with
Krt/File/YDirectory.h "Krt/File/File.h"                     # operations on GetHandle
Krt/File/YEntry.h "Krt/File/File.h"                         # KeepOwner
Krt/JSON/Members.h <type_traits>
Krt/KrtFoundation/boostapi.h "Krt/Exception/YError.h"       # what callers catch
Krt/Log/LogSite.h "Krt/Log/LogPrefix.h"                     # the statement's macros
Krt/Memory/YHeap.h <memory>
Krt/Memory/YHeap.h <type_traits>
Krt/Memory/YHeap.h <utility>
Krt/Signal/YSignal.h <memory>
Krt/Signal/YSignal.h "Krt/KrtFoundation/boostapi.h"
Krt/Time/YDuration.h <chrono>
Krt/Time/YDuration.h <compare>
Krt/Type/YAny.h <utility>
END
)

check() {
    local header=$1 found
    # Boost's public headers are no more than names for others, which confuses the checker.
    if ! found=$(include-what-you-use -x c++ -std=c++20 -Wno-pragma-once-outside-header -DTIXML_USE_STL \
        -I"$root/libkrt" -I"$root" -Xiwyu --no_fwd_decls "$root/$header" 2>&1) && grep -q 'error:' <<<"$found"; then
        echo "$header doesn't compile by itself:" && grep 'error:' <<<"$found"
        return
    fi
    grep '^- #include' <<<"$found" | grep -v '<boost/' | sed 's/^- #include //; s| *//.*||' |
        sed "s|^|${header#libkrt/} |" || true
}
export -f check
export root

idle=$(sed "s|^$root/||" "$1/public-headers" | grep '\.h$' | xargs -P "$(nproc)" -I{} bash -c 'check {}' |
    grep -vxF -f <(echo "$kept") || true)
[ -z "$idle" ] || { echo "To remove, or to keep with a reason in .ci/includes.sh:"; echo "$idle"; exit 1; }
