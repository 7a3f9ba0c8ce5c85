# What every script here begins with: source it, then call install_packages and build.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# A bare tree that somebody entered with chroot may lack /proc and terminals: lend them.
if [ "$(id -u)" -eq 0 ] && { [ ! -e /proc/self/stat ] || [ ! -e /dev/pts/ptmx ]; }; then
    lent=()
    lend()
    {
        mkdir -p "$2" && mount -t "$1" "${@:3}" "$1" "$2" && lent=("$2" "${lent[@]}")
    }
    [ -e /proc/self/stat ] || lend proc /proc
    [ -e /dev/pts/ptmx ] || lend devpts /dev/pts -o newinstance,ptmxmode=0666
    trap : INT TERM HUP # the script below ends on them, and then this one takes back what it lent
    status=0
    bash "$0" "$@" || status=$?
    umount -l "${lent[@]}" # /proc last: umount needs it
    exit "$status"
fi

# say TEXT: what the script is doing now.
say()
{
    printf '== %s\n' "$*" >&2
}

# install_packages NAME...: installs the Debian packages that are missing.
install_packages()
{
    local missing=() name
    for name in "$@"; do
        dpkg-query -W -f '${db:Status-Abbrev}' "$name" 2> /dev/null | grep -q '^ii' ||
            missing+=("$name")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    say "installing ${missing[*]}"
    local as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    local log
    log=$(mktemp)
    if ! { "${as_root[@]}" apt-get update &&
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -y --no-install-recommends "${missing[@]}"; } > "$log" 2>&1; then
        tail -n 20 "$log" >&2
        say "apt-get failed, see $log"
        exit 1
    fi
    rm -f "$log"
}

# What building and running the board needs.
build_packages=(g++ cmake ninja-build libevent-dev libgtest-dev libgmock-dev libcli11-dev nlohmann-json3-dev libncurses-dev
    busybox-static libfaketime iproute2 util-linux mount)

# What the tests need beside that.
test_packages=(binutils faketime procps tmux strace sigrok-cli librsvg2-bin fonts-dejavu-core mandoc libxml2-utils)

# build PRESET [TARGET...]: configures it and builds the targets, or everything.
build()
{
    local preset=$1 folder=build log
    say "building $preset"
    shift
    [ "$preset" = release ] || folder=build/$preset
    mkdir -p "$folder"
    log=$folder/build.log
    if ! { cmake --preset "$preset" && cmake --build "$folder" ${1:+--target "$@"}; } > "$log" 2>&1; then
        grep -E -A 20 'error|Error|FAILED' "$log" | head -n 60 >&2 || tail -n 40 "$log" >&2
        say "the build failed, see $log"
        exit 1
    fi
}
