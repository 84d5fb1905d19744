# Sourced by the scripts: makes sure that Debian packages are there.
# need PACKAGE...: installs through apt-get what is missing, or says what to
# install and ends the script where that is not allowed.

need() {
    missing=
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
            missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    if [ "$(id -u)" = 0 ]; then
        as_root=
    elif command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
        as_root=sudo
    else
        echo "Please install these Debian packages, then run this again:" >&2
        echo "  apt-get install$missing" >&2
        exit 1
    fi
    echo "Installing$missing"
    # shellcheck disable=SC2086 # a list of words
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq update
    # shellcheck disable=SC2086
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq install -y --no-install-recommends \
        $missing >/dev/null
}
