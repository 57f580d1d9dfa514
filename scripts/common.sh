# What the other scripts share. Sourced, not run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

say() { printf '\n== %s\n' "$*"; }

# Installs the Debian packages that are not there yet; says nothing to do otherwise.
need() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
    done
    if [ ${#missing[@]} -eq 0 ]; then
        say "All Debian packages are there"
        return
    fi
    say "Installing Debian packages: ${missing[*]}"
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || { echo "Run this as root, or install sudo." >&2; exit 1; }
        as_root=(sudo)
    fi
    "${as_root[@]}" apt-get update -q
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -qy --no-install-recommends "${missing[@]}"
}

build_packages=(g++ cmake ninja-build libtomlplusplus-dev libcli11-dev nlohmann-json3-dev libabsl-dev tzdata
    libcsv-dev libsimdjson-dev zlib1g-dev libzstd-dev)
test_packages=(libgtest-dev binutils pkg-config scdoc)
lint_packages=(clang-14 clang-format-14 clang-tidy-14 git)
fuzz_packages=(clang-14 libfuzzer-14-dev libclang-rt-14-dev)
package_packages=(dpkg-dev file git lintian scdoc)
root_packages=(debootstrap git procps)
boot_packages=(systemd-container pkg-config)

# Configures and builds one preset.
build() {
    say "Building the preset $1 in build/$1"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$@"
}
