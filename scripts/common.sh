# What the other scripts share. Sourced, not run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

say() { printf '\n== %s [%(%T)T]\n' "$*" -1; }

# For scripts that cannot try on every machine what they try: may_skip names the file that says why nothing was tried.
may_skip() {
    skipped=$1
    mkdir -p build
    rm -f "$skipped"
}
skip() { echo "SKIPPED: $*" | tee "$skipped" >&2; exit 77; }

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
    [ -n "${apt_is_fresh:-}" ] || "${as_root[@]}" apt-get update -q
    apt_is_fresh=1
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -qy --no-install-recommends "${missing[@]}"
}

build_packages=(g++ cmake dpkg-dev ninja-build libtomlplusplus-dev libcli11-dev nlohmann-json3-dev libabsl-dev tzdata
    libcsv-dev libsimdjson-dev zlib1g-dev libzstd-dev libssl-dev)
# The front over HTTP needs Boost 1.81; Debian 12's libboost-dev is 1.74.
build_packages+=("$(. /etc/os-release; [ "${VERSION_ID:-}" = 12 ] && echo libboost1.81-dev || echo libboost-dev)")
test_packages=(libgtest-dev libldns-dev binutils pkg-config scdoc curl openssl python3-jsonschema bind9-dnsutils
    knot-dnsutils)
lint_packages=(clang-14 clang-format-14 clang-tidy-14 git)
fuzz_packages=(clang-14 libfuzzer-14-dev libclang-rt-14-dev)
package_packages=(file git scdoc)
root_packages=(debootstrap git procps)
boot_packages=(systemd-container pkg-config curl)
metrics_packages=(prometheus curl openssl python3)
enum_packages=(kamailio sip-tester unbound bind9-dnsutils iproute2 python3)
page_packages=(chromium fonts-dejavu-core)
command -v npm >/dev/null || page_packages+=(npm) # one of other origin does as well, and has none beside it

# A compiler's work is kept where ccache is there; it must not look at times, which are others in each checkout.
if [ -z "${CMAKE_CXX_COMPILER_LAUNCHER:-}" ] && command -v ccache >/dev/null; then
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi
export CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime

# Configures the build of which the packages are made, by the preset `package` and the flags of Debian's packages, and
# builds it. What is shipped is what the example and the tests run. Takes options of cmake, then `--` and those of its
# build.
build_product() {
    local options=()
    while [ $# -gt 0 ] && [ "$1" != -- ]; do options+=("$1"); shift; done
    flags() { DEB_BUILD_MAINT_OPTIONS=hardening=+bindnow dpkg-buildflags --get "$1"; }
    say "Building the preset package in build/package"
    # Type=notify-reload is of systemd 253; Debian 12 has 252.
    local notify_reload
    notify_reload=$(. /etc/os-release; [ "$ID" = debian ] && [ "${VERSION_ID:-99}" -ge 13 ] && echo ON || echo OFF)
    cmake --preset package -DNP_NOTIFY_RELOAD="$notify_reload" -DCMAKE_CXX_FLAGS="$(flags CPPFLAGS) $(flags CXXFLAGS)" \
        -DCMAKE_EXE_LINKER_FLAGS="$(flags LDFLAGS)" -DCMAKE_SHARED_LINKER_FLAGS="$(flags LDFLAGS)" \
        -DCMAKE_MODULE_LINKER_FLAGS="$(flags LDFLAGS)" "${options[@]}" >/dev/null
    cmake --build --preset package "${@:2}"
}

# Configures and builds one preset.
build() {
    say "Building the preset $1 in build/$1"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$@"
}
