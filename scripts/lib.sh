# Shared by the scripts in this folder. To be sourced; leaves the shell in the project's root.
# shellcheck shell=bash

cd "$(dirname "${BASH_SOURCE[0]}")/.."

build_libraries=(libglibmm-2.4-dev libjsoncpp-dev libsystemd-dev libdbus-1-dev libexpat1-dev systemd)
build_packages=(g++ meson ninja-build pkgconf "${build_libraries[@]}")

# as_root COMMAND...: runs a command as root, by sudo where needed.
as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# install_missing PACKAGE...: installs those Debian packages that are not installed yet.
install_missing() {
    local missing=() package
    for package; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} = 0 ] && return
    echo "Installing ${missing[*]}"
    local apt=(env DEBIAN_FRONTEND=noninteractive apt-get -qq -o Dpkg::Use-Pty=0 -o Acquire::Retries=3)
    # A mirror in mid-synchronisation fails for a while; what matters is whether the packages can be had.
    as_root "${apt[@]}" update || as_root "${apt[@]}" update || true
    as_root "${apt[@]}" install -y --no-install-recommends "${missing[@]}" >/dev/null
}

# build FOLDER OPTION...: configures with Meson where needed, and compiles.
build() {
    local folder=$1
    shift
    # A folder that is configured already is configured again, in case the options have changed.
    meson setup "$folder" $([ -f "$folder/build.ninja" ] && echo --reconfigure) "$@" >"$folder.log" ||
        { cat "$folder.log"; return 1; }
    rm "$folder.log"
    ninja --quiet -C "$folder"
}
