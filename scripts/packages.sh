# shellcheck shell=sh
# Sourced by the scripts: makes sure that Debian packages are there.
# need PACKAGE...: installs through apt-get what is missing, or says what to
# install and ends the script where that is not allowed.
# want PACKAGE...: the same for what the script can do without: it says so and goes on.

# The packages of the list that are not installed.
missing_packages() {
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
            printf ' %s' "$package"
    done
}

# Sets as_root to what makes a command root's; fails where there is no way.
find_root() {
    as_root=
    [ "$(id -u)" != 0 ] || return 0
    command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null && as_root=sudo
}

install_packages() {
    echo "Installing $*"
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq update &&
        $as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq install -y --no-install-recommends \
            "$@" >/dev/null
}

need() {
    missing=$(missing_packages "$@")
    [ -n "$missing" ] || return 0
    if ! find_root; then
        echo "Please install these Debian packages, then run this again:" >&2
        echo "  apt-get install$missing" >&2
        exit 1
    fi
    # shellcheck disable=SC2086 # a list of words
    install_packages $missing
}

want() {
    missing=$(missing_packages "$@")
    [ -n "$missing" ] || return 0
    # shellcheck disable=SC2086
    find_root && install_packages $missing ||
        echo "Going on without the Debian packages$missing" >&2
}
