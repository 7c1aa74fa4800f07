#!/usr/bin/env bash
# tests/install/run.sh BUILD SOURCE VERSION: installs a build, of shared libraries or of static ones, below a temporary
# prefix, builds the examples against it by CMake and one of them by pkg-config, and runs them and the installed kbagent.
set -euo pipefail

build=$1 source=$2 version=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "$*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
"$prefix/bin/kbagent" --version | grep -qx "kbagent $version"
library=$(dirname "$(find "$prefix" -name libBackup.so -o -name libBackup.a)")

cmake -S "$source/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/examples" -- -j "$(nproc)" >"$work/log" || { cat "$work/log"; exit 1; }
run() { "$work/examples/example-$1" "${@:2}"; }
[ "$(run select /home/ann/a.txt)" = "/home/ann/a.txt: back up" ] || fail "select"
[ "$(run select /home/ann/a.tmp)" = "/home/ann/a.tmp: excluded and reported" ] || fail "select"
echo content >"$work/file"
run capture "$work/file" "$work/content" >"$work/record"
mkdir "$work/restored"
made=$(run restore "$work/restored" "$work/content" <"$work/record")
cmp "$made" "$work/file"
[ "$(stat -c '%a %Y' "$made")" = "$(stat -c '%a %Y' "$work/file")" ] || fail "restore made $made"
[ "$(run convert <"$work/record")" = "$(cat "$work/record")" ] || fail "convert"
run convert <"$source/tests/golden/legacy-unix-file.json" | grep -q '"file_size":' || fail "convert"
# Below a changed root that is not a mount, no file has a volume.
! grep -q " / " /proc/self/mounts || run volumes / | grep -q "bytes free" || fail "volumes"
[ "$(printf 'x TRACE y\nz\n' | run watch-log)" = $'begins with: x TRACE y\n1 lines of trace' ] || fail "watch-log"
# The job of the documentation, for a path that exists here.
mkdir -p "$work/home/ann" "$work/other"
touch "$work/home/ann/"{kept,left.tmp}
# shellcheck disable=SC2016 # the quotes are those of the page
sed -n '/^```json/,/^```$/{/^```/d;p}' "$source/docs/job-format.md" |
    sed "s|\"/\"|\"$work\"|; s|\"/home\"|\"$work/home\"|" >"$work/job"
walked=$(run walk "$work/job" | sed -E 's/.*"components":\[([^]]*).*/\1/; s/.*"name":"([^"]*)".*/\1/' | sort | tr '\n' ' ')
[ "$walked" = "ann home kept " ] || fail "walk: $walked"
run service no-such-service-here | grep -q "is not installed" || fail "service"
echo damaged >"$work/certificate"
run trust "$work/certificate" example.com | grep -q "^not trusted: " || fail "trust"

# The reference of the headers reports undocumented names.
if said=$(PATH=/nowhere "$(command -v cmake)" -P "$source/cmake/Documentation.cmake" 2>&1) ||
    [[ $said != *"needs doxygen"* ]]; then
    fail "documentation: $said"
fi

# NAME STATEMENTS: configures a project that consists of these statements.
configures() {
    mkdir "$work/$1"
    printf 'cmake_minimum_required(VERSION 3.25)\nproject(%s LANGUAGES CXX)\n%s' "$1" "$2" >"$work/$1/CMakeLists.txt"
    cmake -S "$work/$1" -B "$work/$1/build" -DCMAKE_PREFIX_PATH="$prefix" >"$work/log" 2>&1
}
configures twice "find_package(Backup ${version%.*} REQUIRED)
find_package(Backup REQUIRED)" || fail "found twice: $(cat "$work/log")"
# An incompatible version is refused.
if configures newer "find_package(Backup 99 REQUIRED)"; then fail "version 99"; fi
# A missing package is not an error unless it is required.
configures asks "set(CMAKE_DISABLE_FIND_PACKAGE_Boost ON)
find_package(Backup QUIET)
if(Backup_FOUND)
  message(FATAL_ERROR found)
endif()" || fail "asked for: $(cat "$work/log")"

export PKG_CONFIG_PATH=$library/pkgconfig
[ "$(pkg-config --modversion backup)" = "$version" ] || fail "backup.pc has another version"
static=()
[ -e "$library/libBackup.so" ] || static=(--static)
# shellcheck disable=SC2046 # each flag is a separate word
"${CXX:-c++}" -std=c++20 "$source/examples/select.cpp" -o "$work/select" \
    $(pkg-config --cflags --libs "${static[@]}" backup) -Wl,-rpath,"$library"
[ "$("$work/select" /home/ann/cache)" = "/home/ann/cache: nothing to do here" ] || fail "select by pkg-config"

# Installed headers include only installed headers.
for header in $(cd "$prefix/include" && find Krt Backup -name '*.h'); do echo "#include \"$header\""; done >"$work/all.cpp"
# shellcheck disable=SC2046
"${CXX:-c++}" -std=c++20 -fsyntax-only "$work/all.cpp" $(pkg-config --cflags backup)
echo "installed and used"
