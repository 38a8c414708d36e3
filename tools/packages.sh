# Sourced by tools/demo.sh and tools/test.sh: installs the Debian packages
# named in the array `packages` that are not installed yet (as root).

is_installed() {
    dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'
}

install_missing_packages() {
    local missing=() package
    for package in "${packages[@]}"; do
        is_installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "missing packages: ${missing[*]}; run as root to install them" >&2
        exit 1
    fi
    echo "installing missing packages: ${missing[*]}" >&2
    apt-get update
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
}
