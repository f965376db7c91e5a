# Shared by the scripts, which source it: strict mode, the name of the step that failed, packages.
# shellcheck shell=bash

set -euo pipefail

project=$(CDPATH='' cd -- "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
current_step=start
policy=/usr/sbin/policy-rc.d
made_policy=

# Names what comes next; when it fails, the script says so and ends with its status.
step() {
    current_step=$1
    printf '== %s\n' "$1"
}

# Runs at the end, however it comes.
finish() {
    local status=$?
    if [ -n "$made_policy" ]; then
        as_root rm -f "$policy"
    fi
    if [ "$status" -ne 0 ]; then
        printf '%s: this step failed: %s (status %d)\n' "$0" "$current_step" "$status" >&2
    fi
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# shellcheck disable=SC2034 # not every script takes every list
# What building the bundle and running it takes. GCC's link-time optimisation runs make.
build_packages=(g++ cmake make ninja-build qtbase5-dev libcpp-httplib-dev nlohmann-json3-dev
    pkgconf librsvg2-bin icnsutils nginx)
# shellcheck disable=SC2034 # likewise
# What showing it without a display takes: a virtual X server, a browser, and what drives both.
demo_packages=(xvfb fonts-dejavu-core chromium chromium-driver
    iproute2 python3 python3-pil python3-psutil python3-selenium python3-xlib)
brew_packages=(cmake ninja qt@5 cpp-httplib nlohmann-json pkgconf librsvg nginx)

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        printf 'These packages are missing and sudo is not installed. As root, run:\n' >&2
        printf '  apt-get install %s\n' "${missing[*]}" >&2
        return 1
    fi
}

# Debian starts a service when its package is installed. The launcher starts nginx by itself and
# on a port of its own, so while the packages go in, the machine is told to start nothing
# (invoke-rc.d(8)); a policy that is there already stays.
apt_install() {
    if [ ! -e "$policy" ]; then
        made_policy=yes
        printf '#!/bin/sh\nexit 101\n' | as_root tee "$policy" >/dev/null
        as_root chmod 755 "$policy"
    fi
    as_root apt-get update -q
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -qy --no-install-recommends "$@"
    if [ -n "$made_policy" ]; then
        as_root rm -f "$policy"
        made_policy=
    fi
}

# install_missing package...: installs those that are not there; asks for rights only then.
install_missing() {
    local missing=() package
    if [ "$(uname)" = Darwin ]; then
        for package in "${brew_packages[@]}"; do
            brew list "$package" >/dev/null 2>&1 || missing+=("$package")
        done
        [ ${#missing[@]} -eq 0 ] || brew install "${missing[@]}"
        PATH="$(brew --prefix qt@5)/bin:$PATH"
        CMAKE_PREFIX_PATH=$(brew --prefix qt@5)
        export PATH CMAKE_PREFIX_PATH
        return
    fi
    if ! command -v apt-get >/dev/null; then
        printf 'No apt-get here. What these Debian packages hold must be there: %s\n' "$*"
        return
    fi
    for package in "$@"; do
        # shellcheck disable=SC2016 # dpkg-query's own format, not a shell variable
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
            missing+=("$package")
    done
    if [ ${#missing[@]} -ne 0 ]; then
        apt_install "${missing[@]}"
    fi
}

# build preset: configures and builds it.
build() {
    step "configure the $1 preset"
    (cd "$project" && cmake --preset "$1" --log-level=WARNING)
    step "build the $1 preset"
    (cd "$project" && cmake --build --preset "$1")
}
