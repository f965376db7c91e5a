# Shared by the scripts, which source it: strict mode, the name of the step that failed, packages.
# shellcheck shell=bash

set -euo pipefail

project=$(CDPATH='' cd -- "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
current_step=start
policy=/usr/sbin/policy-rc.d
made_policy=

# refuse line: what is wrong and what to do, said before anything is done.
refuse() {
    printf '%s: %s\n' "$0" "$1" >&2
    trap - EXIT
    exit 1
}

# The path stands unquoted in the command that starts nginx.
unsafe=$' \t\n"\'\\$`&;|<>()*?{['
case $project in
*["$unsafe"]*)
    refuse "$project has a blank or a character of the shell, so nginx cannot start there: move it."
    ;;
esac

# Names what comes next; when it fails, the script says so and ends with its status.
step() {
    current_step=$1
    printf '== %s\n' "$1"
}

# Runs when the script ends, in whatever way.
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
# What building the bundle and its packages and running it takes. GCC's link-time optimisation runs
# make.
build_packages=(g++ cmake make ninja-build qtbase5-dev libmicrohttpd-dev nlohmann-json3-dev
    pkgconf librsvg2-bin icnsutils nginx dpkg-dev file)
# shellcheck disable=SC2034 # likewise
# What showing it without a display takes: a virtual X server, a browser, and what drives both.
demo_packages=(xvfb fonts-dejavu-core chromium chromium-driver
    iproute2 python3 python3-pil python3-psutil python3-selenium python3-xlib)
# shellcheck disable=SC2034 # likewise
# What walks the window as a screen reader does. A release may lack some.
assistive_packages=(at-spi2-core dbus-daemon python3-pyatspi)
brew_packages=(cmake ninja qt@5 libmicrohttpd nlohmann-json pkgconf librsvg nginx)
oldest_cmake=3.21 # knows the presets

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

apt_get() {
    as_root env LC_ALL=C DEBIAN_FRONTEND=noninteractive \
        apt-get -q -o DPkg::Lock::Timeout=600 "$@"
}

# apt itself waits for the lock of the packages and says so, but not for the lock of their lists.
apt_update() {
    local said='' seen
    until seen=$(apt_get update 2>&1); do
        case $seen in
        *'Could not get lock'*) ;;
        *)
            printf '%s\n' "$seen" >&2
            return 1
            ;;
        esac
        [ -n "$said" ] || printf 'Another program is at the packages: waiting until it has ended.\n'
        said=yes
        sleep 2
    done
}

# Debian starts a service when its package is installed, and again at each boot. The launcher starts
# nginx by itself, on a port of its own. So a policy forbids these starts while the packages are
# being installed (invoke-rc.d(8); a policy that is there already stays), and services that came
# with the packages stay off.
apt_install() {
    local service
    if [ ! -e "$policy" ]; then
        made_policy=yes
        # shellcheck disable=SC2016 # for the policy's own shell
        printf '%s\n' '#!/bin/sh' 'case " $* " in *" nginx"[.\ ]* | *" supervisor"[.\ ]*) exit 101; esac' |
            as_root tee "$policy" >/dev/null
        as_root chmod 755 "$policy"
    fi
    apt_get install -y --no-install-recommends "$@"
    if [ -n "$made_policy" ]; then
        as_root rm -f "$policy"
        made_policy=
    fi
    for service in nginx supervisor; do
        case " $* " in
        *" $service "*) as_root update-rc.d "$service" disable ;;
        esac
    done
}

# The version of a package that is installed or, if none is, that apt would install; or nothing.
version_of() {
    LC_ALL=C apt-cache policy "$1" 2>/dev/null | sed -n '/^  [IC][a-z]*: [0-9]/{s/.*: //p;q;}'
}

# What this release does not have of the packages, in words; CMake is the one whose age matters.
lacking() {
    local package
    if ! dpkg --compare-versions "$(version_of cmake)" ge "$oldest_cmake"; then
        printf ' CMake %s' "$oldest_cmake"
    fi
    for package in "$@"; do
        [ -n "$(version_of "$package")" ] || printf ' %s' "$package"
    done
}

# check_release package...: goes on if apt has them all.
check_release() {
    local lack
    if [ -z "$(version_of cmake)" ]; then
        refuse 'apt has no list of packages here, and cannot fetch one: look at the network.'
    fi
    lack=$(lacking "$@")
    if [ -n "$lack" ]; then
        refuse "This system lacks$lack. Debian 12 and 13 have what it takes."
    fi
}

# keep_available package...: leaves those in `optional` that this release has, and names the others.
keep_available() {
    local package lack=''
    optional=()
    for package in "$@"; do
        if [ -n "$(version_of "$package")" ]; then
            optional+=("$package")
        else
            lack+=" $package"
        fi
    done
    [ -z "$lack" ] ||
        printf 'This release does not have%s: the checks that need them are skipped.\n' "$lack"
}

is_installed() {
    # shellcheck disable=SC2016 # dpkg-query's own format, not a shell variable
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

may_install() {
    [ "$(id -u)" -eq 0 ] || { command -v sudo >/dev/null && sudo true; }
}

# install_command package...: what an administrator types in this script's place. Debian's nginx
# package starts a web server for everybody; update-rc.d(8) and service(8) end it with systemd and
# without.
install_command() {
    [ -n "$(version_of cmake)" ] || printf 'apt-get update && ' # no list of packages yet
    printf 'apt-get install --no-install-recommends %s' "$*"
    case " $* " in
    *' nginx '*) printf ' && update-rc.d nginx disable && service nginx stop' ;;
    esac
    printf '\n'
}

# install_missing package... [-- package...]: installs those that are not there, and of those behind
# the dashes what the release has. Asks for rights only then.
install_missing() {
    local required=() optional=() package behind_dashes=
    if [ "$(uname)" = Darwin ]; then
        for package in "${brew_packages[@]}"; do
            brew list "$package" >/dev/null 2>&1 || required+=("$package")
        done
        [ ${#required[@]} -eq 0 ] || brew install "${required[@]}"
        PATH="$(brew --prefix qt@5)/bin:$PATH"
        CMAKE_PREFIX_PATH=$(brew --prefix qt@5)
        export PATH CMAKE_PREFIX_PATH
        return
    fi
    for package in "$@"; do
        if [ "$package" = -- ]; then
            behind_dashes=yes
        elif is_installed "$package"; then
            continue
        elif [ -z "$behind_dashes" ]; then
            required+=("$package")
        else
            optional+=("$package")
        fi
    done
    if ! command -v apt-get >/dev/null; then
        printf 'No apt-get here. What these Debian packages hold must be there: %s\n' "${required[*]}"
        return
    fi
    # At once, unless apt has not fetched its lists yet.
    if [ -n "$(version_of cmake)" ]; then
        check_release
        keep_available "${optional[@]}"
    fi
    [ $((${#required[@]} + ${#optional[@]})) -ne 0 ] || return 0
    if ! may_install; then
        if [ ${#required[@]} -eq 0 ]; then
            printf 'The checks that need these packages are skipped, since you may not install them: %s\n' \
                "${optional[*]}"
            return
        fi
        [ -z "$(version_of cmake)" ] || check_release "${required[@]}"
        printf 'Packages are missing, and you may not install them. As root, run:\n  ' >&2
        install_command "${required[@]}" >&2
        return 1
    fi
    apt_update
    check_release "${required[@]}"
    keep_available "${optional[@]}"
    apt_install "${required[@]}" "${optional[@]}"
}

# build preset: configures and builds it.
build() {
    step "configure the $1 preset"
    (cd "$project" && cmake --preset "$1" --log-level=WARNING)
    step "build the $1 preset"
    (cd "$project" && cmake --build --preset "$1")
}
