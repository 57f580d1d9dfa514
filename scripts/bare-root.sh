# What the scripts share that try things in a bare Debian root. Sourced after common.sh, not run; whoever does calls
# may_skip before.

folder=  # holds the root; a new one each time, which goes at the end
running= # the process whose child is the first one in the root
end() {
    trap '' HUP INT TERM
    if [ -n "$running" ]; then # the kernel ends all other processes of the root with its first one
        { pkill -KILL -P "$running" || kill -KILL "$running"; wait "$running"; } 2>/dev/null || true
    fi
    [ -z "$folder" ] || remove "$folder"
}
remove() {
    if grep -qF " $1/" /proc/self/mountinfo; then
        echo "$1 is left: something is mounted in it." >&2
    else
        rm -rf --one-file-system "$1"
    fi
}
trap end EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

. /etc/os-release
[ "$ID" = debian ] || skip "this is not Debian"
[ "$(id -u)" -eq 0 ] || skip "only root can make a bare Debian root"
(need "${root_packages[@]}") || skip "debootstrap and git cannot be installed"
own_spaces=(unshare --mount --pid --fork --kill-child --mount-proc)
"${own_spaces[@]}" mount -t tmpfs tmpfs /tmp || skip "no name spaces of mounts and processes can be made here"

# Runs a command in the background, so that a signal need not wait for its end; with the signals that the shell then takes
# from it. It does not outlive this script.
start() {
    env --default-signal=INT,QUIT setpriv --pdeathsig KILL "$@" &
    running=$!
}
ended() { # its status
    local status=0
    wait "$running" || status=$?
    running=
    return $status
}

# bare_root PACKAGE...: unpacks into $folder/root a bare Debian root that has these packages besides, of the same
# release as this machine, from where its apt gets its packages. Kept in build/, as it takes a minute to make.
bare_root() {
    new_folder
    local bare
    bare=$PWD/build/bare-root-$VERSION_CODENAME$(printf -- '-%s' "$@").tar
    if [ ! -e "$bare" ]; then
        say "Making a bare Debian root"
        make_bare_root "$bare" "$@"
        mv "$bare.new" "$bare"
    else
        tar -C "$folder/root" -xf "$bare"
    fi
}

# Removes the folders of runs that were killed, too: those whose lock nobody holds, not even a process in the root.
new_folder() {
    local old
    for old in "$PWD"/build/bare-root.??????; do
        [ ! -d "$old" ] || ! flock -n "$old" true || remove "$old"
    done
    folder=$(mktemp -d "$PWD/build/bare-root.XXXXXX")
    exec {lock}<"$folder"
    flock "$lock"
    chmod 755 "$folder"
    mkdir "$folder/root"
}

make_bare_root() { # the archive to write, packages
    local mirror
    mirror=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' "Codename: $VERSION_CODENAME" \
        'Origin: Debian' 'Component: main' | head -n 1)
    [ -n "$mirror" ] || skip "apt knows no place of Debian's packages"
    # What debootstrap mounts is seen by nobody else and goes with it.
    start "${own_spaces[@]}" debootstrap --variant=minbase \
        --include="$(IFS=,; echo "${*:2}")" "$VERSION_CODENAME" "$folder/root" "$mirror" >build/debootstrap.log 2>&1
    ended || { tail build/debootstrap.log; skip "no bare Debian root could be made"; }
    rm -f "$folder"/root/var/cache/apt/archives/*.deb
    tar -C "$folder/root" --one-file-system -cf "$1.new" .
}
