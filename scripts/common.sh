# What every script here begins with: source it, then call install_packages and build.

set -euo pipefail
script=$(readlink -f "$0")
cd "$(dirname "$script")/.."

# usage: prints the head of the script.
usage()
{
    sed '1d;/^[^#]/,$d;s/^# \{0,1\}//' "$script"
}

# say TEXT: what the script is doing now.
say()
{
    printf '== %s\n' "$*" >&2
}

case ${1:-} in -h | --help) usage && exit ;; esac
if ! mkdir -p build 2> /dev/null || [ ! -w build ]; then
    say "$PWD/build cannot be written"
    exit 1
fi

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
    bash "$script" "$@" || status=$?
    umount -l "${lent[@]}" # /proc last: umount needs it
    exit "$status"
fi

# available NAME...: prints the name of each that this release has.
available()
{
    local names name
    for names in "$@"; do
        for name in ${names//|/ }; do
            ! apt-cache show "$name" > /dev/null 2>&1 || break
        done
        echo "$name"
    done
}

# install_packages NAME...: installs the Debian packages that are missing. NAME|NAME stands for a
# package whose name differs between releases.
install_packages()
{
    if ! command -v apt-get > /dev/null; then
        say "no apt-get here; these have to be there, by Debian's names: $*"
        return
    fi
    local missing=() name
    for name in "$@"; do
        { dpkg-query -W -f '${db:Status-Abbrev}\n' ${name//|/ } 2> /dev/null || true; } |
            grep -q '^ii' || missing+=("$name")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    say "installing ${missing[*]}"
    local as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    local log
    log=$(mktemp)
    if ! { "${as_root[@]}" apt-get update && available "${missing[@]}" |
        xargs "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -y --no-install-recommends; } > "$log" 2>&1; then
        tail -n 20 "$log" >&2
        say "apt-get failed, see $log"
        exit 1
    fi
    rm -f "$log"
}

# What building and running the board needs.
build_packages=(g++ cmake ninja-build libevent-dev libcli11-dev nlohmann-json3-dev libncurses-dev
    busybox-static libfaketime iproute2 util-linux mount)

# What the tests need beside that: those of the modules, and the others.
unit_packages=(libgtest-dev libgmock-dev binutils)
test_packages=("${unit_packages[@]}" faketime procps tmux strace sigrok-cli librsvg2-bin fonts-dejavu-core
    mandoc libxml2-utils chromium python3-pytest radvd dnsmasq-base dhcpcd-base
    openssh-client dropbear-bin)

# progress: shows on a terminal how far the build is whose output comes in.
progress()
{
    local line
    while read -r line; do
        if [ -t 2 ] && [[ $line =~ ^\[[0-9]+/[0-9]+\] ]]; then
            printf '%s\r' "${BASH_REMATCH[0]}" >&2
        fi
    done
}

# build PRESET [TARGET...]: configures it and builds the targets, or everything.
build()
{
    local preset=$1 folder=build log
    say "building $preset"
    shift
    [ "$preset" = release ] || folder=build/$preset
    mkdir -p "$folder"
    log=$folder/build.log
    if ! { cmake --preset "$preset" && cmake --build "$folder" ${1:+--target "$@"}; } 2>&1 |
        tee "$log" | progress; then
        grep -E -A 20 'error|Error|FAILED|Without' "$log" | head -n 60 >&2 || tail -n 40 "$log" >&2
        say "the build failed, see $log"
        exit 1
    fi
}

# proved WHAT RESULT: keeps what was found, and on what, for scripts/evidence.
proved()
{
    mkdir -p build/evidence
    printf '| %s | %s | %s, %s | %s, %d cores, Linux %s, gcc %s |\n' "$1" "$2" "$(date +%F)" \
        "$(git describe --always --dirty 2> /dev/null || echo 'no commit')" \
        "$(uname -m)" "$(nproc)" "$(uname -r)" "$(gcc -dumpfullversion)" > "build/evidence/${1//[^a-z0-9]/-}"
}

# prove WHAT FOLDER [CTEST-OPTION...]: runs the tests of a build folder, by the command of "beside".
beside=()
prove()
{
    local what=$1 folder=$2 status=0
    shift 2
    "${beside[@]}" ctest --test-dir "$folder" --output-on-failure --no-tests=error "$@" | tee "$folder/test.log" || status=$?
    [ $status -ne 0 ] || proved "$what" "$(awk '/tests passed/ { failed = $4; all = $NF }
        /^Total Test time/ { time = int($(NF - 1) + 0.5) }
        /\(Skipped\)$/ { skipped++ }
        END { print all - failed - skipped " of " all " passed, " (skipped ? skipped " skipped, " : "") time " s" }' \
        "$folder/test.log")"
    return $status
}
