#!/usr/bin/env bash
# tests/packages.sh DIR: whether the packages in DIR are what they should be. ./dev package --test runs it.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
packages=$(realpath "$1")
work=$(mktemp -d)
root=$work/root
host_pid=
trap '[[ -z $host_pid ]] || kill "$host_pid"; rm -rf "$work"' EXIT

say() { printf '==> %s\n' "$*" >&2; }

die() {
    printf 'packages: %s\n' "$*" >&2
    exit 1
}

quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2 && die "$1 failed"; }; }

# A folder with nothing in it but the packages; what they depend on is the machine's.
unpack() {
    local package
    mkdir "$root"
    for package in "$packages"/*_*.deb; do
        [[ $package == *-dbgsym_* ]] || dpkg-deb --extract "$package" "$root"
    done
    libraries=$(echo "$root"/usr/lib/*-linux-gnu*)
}

exported_symbols() { nm --dynamic --defined-only "$1" | awk '$2 != "A" { print $3 }'; }

check_symbols() {
    local library
    say "symbols"
    [[ $(exported_symbols "$libraries/zark/libzark_webserver.so") == worker_create ]] ||
        die "the module exports more than worker_create"
    for library in "$libraries"/libzark_*.so.0; do
        ! exported_symbols "$library" | grep -v '@@ZARK_0$' >&2 || die "symbols without a version in $library"
    done
}

free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }

# start_host COMMAND...: the service's own command, on free ports, $port and $https_port.
start_host() {
    port=$(free_port)
    https_port=$(free_port)
    env -u LD_LIBRARY_PATH "$@" --set "settings:webserver/port=$port" --set "settings:webserver/httpsPort=$https_port" \
        --log-level error >"$work/out" &
    host_pid=$!
    for _ in $(seq 300); do
        ! grep -qx ready "$work/out" || return 0
        kill -0 "$host_pid" 2>/dev/null || break
        sleep 0.1
    done
    die "the host did not start"
}

stop_host() {
    kill "$host_pid"
    wait "$host_pid" || die "the host ended with status $?"
    host_pid=
}

# serves ZARKCTL...: the host that runs, asked from here and by that zarkctl.
serves() {
    local url
    for url in "http://localhost:$port/" "https://127.0.0.1:$https_port/"; do
        curl -fskSL "$url" | grep -q '<script' || die "the explorer is not served at $url"
    done
    "$@" --url "http://localhost:$port" get player:player/volume >/dev/null || die "zarkctl failed"
}

service_command() { sed -ne ':a; /\\$/N; s/\\\n//; ta; s/^ExecStart=//p' "$1"/lib/systemd/system/zark-host.service; }

check_host() {
    local -a command
    say "the host, from $root"
    read -ra command <<<"$(service_command "$root")"
    command=("${command[@]/#\/usr/$root/usr}")
    command=("${command[@]/=\/usr/=$root/usr}")
    start_host "${command[@]/#\/var/$work/var}"
    ! grep -oE '/[^ ]*libzark_[^ ]*' "/proc/$host_pid/maps" | sort -u | grep -v "^$root" || die "libraries from elsewhere"
    serves "$root/usr/bin/zarkctl"
    stop_host
}

# What they depend on, and nothing else: the archive is this machine's, the system its smallest.
check_bare_system() {
    local bare=$work/bare sources=/etc/apt/sources.list.d/debian.sources
    local -a command
    say "a bare system"
    if ((UID)) || ! command -v mmdebstrap >/dev/null; then
        say "left out: it takes root and mmdebstrap"
        return
    fi
    [[ -f $sources ]] || sources=/etc/apt/sources.list
    # shellcheck disable=SC2016 # The shell of the hooks expands it.
    quietly mmdebstrap --variant=minbase --customize-hook='mkdir "$1/packages"' \
        --customize-hook="cp '$packages'/*.deb \"\$1/packages\"" \
        --customize-hook='chroot "$1" sh -c "rm packages/*-dbgsym_*; apt-get install -y --no-install-recommends /packages/*.deb"' \
        "$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)" "$bare" "$sources"
    read -ra command <<<"$(service_command "$bare")"
    start_host chroot "$bare" "${command[@]}"
    serves chroot "$bare" zarkctl
    stop_host
}

# A device maker's build: the module alone, against a framework that is installed somewhere.
check_system_framework() {
    say "the module against the installed framework"
    quietly cmake -S "$ROOT" -B "$work/module" -G Ninja -DZARK_FRAMEWORK=system "-DCMAKE_PREFIX_PATH=$root/usr"
    quietly ninja -C "$work/module" zark_webserver
    [[ $(exported_symbols "$work/module/lib/libzark_webserver.so") == worker_create ]] || die "the module is another"
}

# Somebody else's module, by the CMake package.
check_cmake_package() {
    say "find_package(Zark)"
    mkdir "$work/user"
    cat >"$work/user/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(user CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(Zark 0.1 REQUIRED)
add_library(user MODULE user.cpp)
target_link_libraries(user PRIVATE Zark::api -Wl,--no-undefined)
CMAKE
    cat >"$work/user/user.cpp" <<'CPP'
#include <CMNodesWorker.h>
extern "C" CMNodesWorker* worker_create(const QVariantHash& arguments) { return new CMNodesWorker("user", arguments); }
CPP
    quietly cmake -S "$work/user" -B "$work/user/build" "-DCMAKE_PREFIX_PATH=$root/usr"
    quietly cmake --build "$work/user/build"
}

check_lint() {
    say "lintian"
    lintian --fail-on error --tag-display-limit 0 "$packages"/*.changes
}

unpack
check_symbols
check_host
check_bare_system
check_lint
check_cmake_package
check_system_framework
say "the packages are what they should be"
