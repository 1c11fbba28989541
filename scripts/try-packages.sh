#!/usr/bin/env bash
# Makes the Debian packages, then installs and uses them in a clean Debian 12: the command makes a
# picture, two processes and the Python module make the same, the readers of single formats are
# found, the README's example is built against the development files, by pkg-config and by CMake, and
# so is a host with services of its own; pip builds the Python module of a source distribution, where
# the libraries for files lack. Needs root, debootstrap and a network; lintian is asked where it is
# found.
#   try-packages.sh [--without-compiling]     leaves the examples out, which need a compiler
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

suite=bookworm
if [[ $EUID != 0 ]] || ! command -v debootstrap >/dev/null; then
    echo "try-packages.sh: needs root and the package debootstrap" >&2
    exit 1
fi

cmake --preset package
cmake --build build/package --parallel "$(nproc)"
rm -f build/package/*.deb
cpack --preset package

# Judged and let pass: there is no public address and no upload to Debian.
judged=bogus-mail-host,bogus-mail-host-in-debian-changelog,initial-upload-closes-no-bugs
if command -v lintian >/dev/null; then
    lintian --fail-on error,warning --allow-root --suppress-tags "$judged" build/package/*.deb
fi

root=$(mktemp -d /var/tmp/kelpa-packages.XXXXXX)
trap 'rm -rf --one-file-system "$root"' EXIT
# The mirror that this machine uses itself.
mirror=$(apt-get indextargets --format '$(REPO_URI)' "Codename: $suite" 'Created-By: Packages' | head -n 1)
debootstrap --variant=minbase "$suite" "$root" ${mirror:+"$mirror"}
cp build/package/*.deb README.md examples/ownhost.cpp "$root/root/"
mkdir "$root/root/source"
git archive HEAD | tar -x -C "$root/root/source"

# Nothing of this shell's environment but proxies, so that only what was installed can help.
inside() { env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root ${http_proxy:+http_proxy="$http_proxy"} \
    chroot "$root" env DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 bash -euc "$1"; }
# No terminal in there, and packages that only root may read.
quietly="-o Dpkg::Use-Pty=0 -o APT::Sandbox::User=root"
# $1, $2...: arguments of apt-get install
install() { inside "apt-get install -q -y --no-install-recommends $quietly $*"; }

install /root/libkelpa0.1_*.deb /root/kelpa_*.deb
inside 'cd /root; kelpa --version
        kelpa generate galaxy --count 20000 -o galaxy.ply
        kelpa info galaxy.ply
        kelpa render galaxy.ply --size 320x180 -o galaxy.png
        test "$(head -c 8 galaxy.png | od -An -tx1 | tr -d " \n")" = 89504e470d0a1a0a
        test -s /usr/share/doc/kelpa/copyright
        apt-get -s remove libkelpa0.1 | grep "^Remv kelpa "' # it depends on the library

# Some formats are read by programs of their own, where the build found their libraries; the command
# names their packages. What begins like such a file and ends there is told as it should be.
declare -A beginnings=([vdb]=' BDV\0\0\0\0' [hdf5]='\211HDF\r\n\032\n' [netcdf]='CDF\001')
for format in "${!beginnings[@]}"; do
    if ! compgen -G "build/package/kelpa-formats-${format}_*.deb" >/dev/null; then
        echo "try-packages.sh: there is no package kelpa-formats-$format to be tried" >&2
        continue
    fi
    inside "cd /root; printf '${beginnings[$format]}' >damaged.$format
            ! kelpa info damaged.$format 2>told; grep 'install the package kelpa-formats-$format' told"
    install "/root/kelpa-formats-${format}_*.deb"
    inside "cd /root; ! kelpa info damaged.$format 2>told; grep -i 'damaged\|incomplete' told"
done

if compgen -G "build/package/kelpa-mpi_*.deb" >/dev/null; then
    install /root/kelpa-mpi_*.deb
    inside 'cd /root; mpirun --allow-run-as-root --oversubscribe -n 2 \
                kelpa-mpi render galaxy.ply --size 320x180 -o ranks.png
            cmp galaxy.png ranks.png'
else
    echo "try-packages.sh: there is no package kelpa-mpi to be tried" >&2
fi

install /root/python3-kelpa_*.deb
inside 'cd /root; ls /usr/lib/python3/dist-packages/kelpa/__pycache__ | grep -q __init__
        python3 -c "
import kelpa
galaxy = kelpa.Primitive(kelpa.read(\"galaxy.ply\"))
look = {\"shade\": \"ao\", \"samples\": 16, \"background\": \"sky\"} # as the command
galaxy.render(width=320, height=180, **look).save(\"python.png\")
print(kelpa.__version__, galaxy)"
        cmp galaxy.png python.png'

if [[ "${1:-}" != --without-compiling ]]; then
    install /root/libkelpa-dev_*.deb g++ cmake make pkg-config libtbb-dev
    inside 'mkdir /root/consumer; cd /root/consumer
        sed -n "/^\`\`\`cpp/,/^\`\`\`/p" ../README.md | sed "/^\`\`\`/d" >main.cpp
        g++ -std=c++20 main.cpp $(pkg-config --cflags --libs kelpa) -o example
        ./example | grep "hit particle 1 at 4"
        { echo "cmake_minimum_required(VERSION 3.25)"
          echo "project(consumer CXX)"
          echo "find_package(Kelpa 0.1 REQUIRED COMPONENTS particles host)"
          echo "add_executable(example main.cpp)"
          echo "target_link_libraries(example Kelpa::particles Kelpa::host)"; } >CMakeLists.txt
        cmake -S . -B build >/dev/null
        cmake --build build
        build/example | grep "hit particle 1 at 4"
        # The library finds the services of a program that hides its symbols.
        g++ -std=c++20 -O1 -fvisibility=hidden ../ownhost.cpp $(pkg-config --cflags --libs kelpa-particles tbb) -o host
        ./host | grep "build jobs on oneTBB: yes"'
fi

if [[ "${1:-}" != --without-compiling ]]; then
    install python3-pip python3-setuptools python3-wheel python3-venv python3-dev pybind11-dev
    inside 'cd /root; python3 -m venv --system-site-packages venv
        cd source
        python3 setup.py -q sdist
        ../venv/bin/pip install --quiet --no-build-isolation --no-index dist/kelpa-*.tar.gz
        ../venv/bin/python -c "import kelpa; assert \"venv\" in kelpa.__file__, kelpa.__file__"
        ../venv/bin/python python/tests/plain.py'
fi

# What removes cleanly leaves nothing behind.
inside 'apt-get purge -q -y '"$quietly"' "kelpa*" python3-kelpa "libkelpa*" >/dev/null
        test -z "$(find / -xdev -iname "*kelpa*" -not -path "/root/*" -not -path "/proc/*" -not -path "/var/log/*")"'
echo "try-packages.sh: the packages install, run, are built against and leave nothing behind"
