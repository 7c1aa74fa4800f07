#!/usr/bin/env bash
# .ci/macos.sh [aarch64] [x86_64]: builds the libraries, the program and the portable tests for macOS with a cross
# compiler, for both processors by default. Does not run what it builds. CMake decides what is built, and a
# second run builds only what has changed. Not part of .ci/run, since the compiler is 350 MB and comes from npm.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

[ $# -gt 0 ] || set -- aarch64 x86_64
for cpu in "$@"; do
    case $cpu in
    aarch64 | x86_64) ;;
    *)
        echo "usage: $0 [aarch64] [x86_64]" >&2
        exit 2
        ;;
    esac
done

oldest=$(sed -n 's/^set(CMAKE_OSX_DEPLOYMENT_TARGET \([0-9.]*\).*/\1/p' CMakeLists.txt)
cache=${XDG_CACHE_HOME:-$HOME/.cache}/kbagent-macos
package=zig-linux-x64 version=0.14.0-dev.2456
sum=f632265d14f26e087ed76ccba44e0983963a4cd06898ac62593c424c2311c72eaa23d801ab0dd59bc4999a71e06a4c45fab2b420d3c99b6f778aa3af69f1de2b
zig=$cache/$package-$version/zig
export ZIG_GLOBAL_CACHE_DIR=$cache/objects ZIG_LOCAL_CACHE_DIR=$cache/objects

# Prints what a command writes only if it fails.
quietly() {
    "$@" >"$cache/log" 2>&1 || { cat "$cache/log" >&2; return 1; }
}

# Moves the new file $1 to $2, unless $2 has this content already: a new date would cause a rebuild.
replace() {
    if cmp -s "$1" "$2"; then rm "$1"; else mv "$1" "$2"; fi
}

fetch_compiler() (
    [ ! -x "$zig" ] || exit 0
    command -v npm >/dev/null || { echo "npm is missing (package npm)" >&2; exit 1; }
    echo "== fetching the compiler"
    cd "$cache"
    rm -rf package ./*.tgz
    quietly npm pack "@ryoppippi/$package@$version"
    sha512sum --check --quiet <<<"$sum  ryoppippi-$package-$version.tgz"
    tar -xzf "ryoppippi-$package-$version.tgz"
    rm ./*.tgz
    mv package "${zig%/zig}"
)

# Debian's source, with apt's state in a folder of its own: the system's lists have no sources.
fetch_tinyxml() (
    [ ! -d "$cache/tinyxml" ] || exit 0
    echo "== fetching TinyXML"
    folder=$cache/apt
    rm -rf "$folder"
    mkdir -p "$folder/lists/partial"
    cd "$folder"
    cat >debian.sources <<'END'
Types: deb-src
URIs: http://deb.debian.org/debian
Suites: bookworm
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
END
    apt=(apt-get -o "Dir::Etc::SourceList=$folder/debian.sources" -o Dir::Etc::SourceParts=-
        -o "Dir::State::Lists=$folder/lists" -o "Dir::Cache=$folder" -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache=)
    quietly "${apt[@]}" update
    quietly "${apt[@]}" source --download-only tinyxml # apt has checked the signature
    quietly dpkg-source --no-check -x tinyxml_*.dsc tinyxml
    mv tinyxml "$cache/tinyxml"
    rm -rf "$folder"
)

# The compiler and its tools under the names that CMake looks for.
make_tools() {
    local tool
    for tool in c++ ar ranlib; do
        local options=
        [ "$tool" != c++ ] || options="-target $cpu-macos.$oldest -fno-sanitize=all"
        printf '#!/bin/sh\nexec "%s" %s %s "$@"\n' "$zig" "$tool" "$options" >"$root/bin/new"
        chmod +x "$root/bin/new"
        replace "$root/bin/new" "$root/bin/$tool"
    done
}

# The dependencies' headers are Debian's, linked one by one.
link_headers() {
    local header
    mkdir -p "$root/include/openssl" "$root/include/sys"
    for header in archive.h archive_entry.h boost CLI gmock gtest tinyxml.h utf8cpp zstd.h zstd_errors.h; do
        ln -sfn "/usr/include/$header" "$root/include/$header"
    done
    ln -sfn "/usr/include/$(gcc -print-multiarch)/curl" "$root/include/curl"
    ln -sf /usr/include/openssl/*.h "/usr/include/$(gcc -print-multiarch)"/openssl/*.h "$root/include/openssl/"
    # Missing from the compiler's headers.
    cat >"$root/include/sys/new" <<'END'
#pragma once
#include <sys/types.h>
#define XATTR_NOFOLLOW 0x0001
#define XATTR_CREATE 0x0002
#define XATTR_REPLACE 0x0004
extern "C" {
ssize_t getxattr(const char* path, const char* name, void* value, size_t size, u_int32_t position, int options);
ssize_t fgetxattr(int fd, const char* name, void* value, size_t size, u_int32_t position, int options);
int setxattr(const char* path, const char* name, const void* value, size_t size, u_int32_t position, int options);
int fsetxattr(int fd, const char* name, const void* value, size_t size, u_int32_t position, int options);
int removexattr(const char* path, const char* name, int options);
int fremovexattr(int fd, const char* name, int options);
ssize_t listxattr(const char* path, char* names, size_t size, int options);
ssize_t flistxattr(int fd, char* names, size_t size, int options);
}
END
    replace "$root/include/sys/new" "$root/include/sys/xattr.h"
}

# stub LIBRARY: a text that the linker reads instead of the dynamic library. It lists the C functions that Debian's
# build of it exports.
stub() {
    local name=$1 targets=arm64-macos symbols
    [ "$cpu" = aarch64 ] || targets=x86_64-macos
    symbols=$(nm -D --defined-only "/usr/lib/$(gcc -print-multiarch)/$name.so" |
        sed -nE 's/.* [TDBRVW] ([A-Za-z0-9_]+)(@.*)?$/_\1/p' | LC_ALL=C sort -u | paste -sd ,)
    cat >"$root/lib/new" <<END
--- !tapi-tbd
tbd-version:     4
targets:         [ $targets ]
install-name:    '@rpath/$name.dylib'
exports:
  - targets:         [ $targets ]
    symbols:         [ ${symbols//,/, } ]
...
END
    replace "$root/lib/new" "$root/lib/$name.tbd"
}

# archive LIBRARY OPTION... -- SOURCE...: a static library of the dependency, if it isn't there yet.
archive() {
    local library=$root/lib/$1.a options=() objects=() source
    [ ! -e "$library" ] || return 0
    echo "== $1 for $cpu"
    shift
    while [ "$1" != -- ]; do options+=("$1") && shift; done
    shift
    for source in "$@"; do
        objects+=("$root/lib/$(basename "$source").o")
        quietly nice "$root/bin/c++" -std=c++20 -O1 -w -I"$root/include" "${options[@]}" -c "$source" -o "${objects[-1]}"
    done
    quietly "$root/bin/ar" rcs "$library" "${objects[@]}"
    rm "${objects[@]}"
}

make_dependencies() {
    local gtest=/usr/src/googletest/googletest xml=$cache/tinyxml
    for library in libarchive libcrypto libcurl libssl libzstd; do stub "$library"; done
    echo '#include <boost/json/src.hpp>' >"$root/lib/json.cpp"
    archive libboost_json -- "$root/lib/json.cpp"
    : >"$root/lib/container.cpp"
    archive libboost_container -- "$root/lib/container.cpp" # JSON uses headers of it alone
    archive libtinyxml -DTIXML_USE_STL -- "$xml"/tinyxml.cpp "$xml"/tinyxmlerror.cpp "$xml"/tinyxmlparser.cpp
    archive libgtest -I"$gtest" -- "$gtest/src/gtest-all.cc"
    archive libgtest_main -I"$gtest" -- "$gtest/src/gtest_main.cc"
}

build() {
    local cpu=$1 root=$cache/$1 folder=build/macos-$1
    mkdir -p "$root"/{bin,include,lib}
    make_tools
    link_headers
    make_dependencies
    quietly cmake -S . -B "$folder" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/MacToolchain.cmake \
        -DBACKUP_MAC_CPU="$cpu" -DBACKUP_MAC_ROOT="$root" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-g0 \
        -DBACKUP_WERROR=ON -DBACKUP_CCACHE= -DBoost_NO_WARN_NEW_VERSIONS=ON
    echo "== building for $cpu"
    if ! nice cmake --build "$folder" -- -j "$(nproc)" -k 0 >"$folder/log"; then
        cat "$folder/log"
        echo "== failed for $cpu:"
        sed -nE '/^FAILED: /{s/^FAILED: (\S+).*/\1/; s|CMakeFiles/[^/]*\.dir/||; s/\.o$//; p}' "$folder/log"
        return 1
    fi
    echo "== $(grep -c '"file":' "$folder/compile_commands.json") sources compiled, $(find "$folder" -name '*.dylib' -type f |
        wc -l) libraries and $(find "$folder" -type f -perm /111 ! -name '*.dylib' ! -path '*/CMakeFiles/*' |
        wc -l) programs linked for $cpu"
}

packaging/install-packages.sh build test
mkdir -p "$cache" build
fetch_compiler
fetch_tinyxml
failed=0
for cpu in "$@"; do
    # set -e has no effect in a command whose failure is tested.
    set +e
    (set -e; build "$cpu")
    [ $? -eq 0 ] || failed=1
    set -e
done
exit $failed
