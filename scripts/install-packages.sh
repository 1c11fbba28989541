#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, as far as they are missing.
# Without the right to install, prints the line that an administrator should run.
# `install-packages.sh --no-tests` leaves out what only tests and benchmark use, `--with-browser` adds
# the one that tests of the page drive.
set -euo pipefail

packages=(g++ cmake make pkg-config libpng-dev libopenexr-dev libcli11-dev libfmt-dev zlib1g-dev libzstd-dev liblzma-dev libbz2-dev libxxhash-dev
          gemmi-dev tao-pegtl-dev libcivetweb-dev libturbojpeg0-dev nlohmann-json3-dev libfreetype-dev fonts-dejavu-core)
if [[ "${1:-}" != --no-tests ]]; then
    packages+=(libopenmpi-dev openmpi-bin libgtest-dev libbenchmark-dev pybind11-dev python3-dev python3-numpy libtbb-dev)
fi
if [[ "${1:-}" == --with-browser ]]; then
    packages+=(chromium fonts-dejavu-core)
fi

missing=()
for package in "${packages[@]}"; do
    if [[ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]]; then
        missing+=("$package")
    fi
done
if [[ ${#missing[@]} == 0 ]]; then
    exit 0
fi

asRoot=()
if [[ $EUID != 0 ]]; then
    if ! command -v sudo >/dev/null; then
        echo "install-packages.sh: needs root or sudo; an administrator should run:" >&2
        echo "  apt-get install --no-install-recommends ${missing[*]}" >&2
        exit 1
    fi
    asRoot=(sudo)
fi
echo "installing ${missing[*]}"
"${asRoot[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q
"${asRoot[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends \
    "${missing[@]}"
