#!/usr/bin/env bash
# Builds the command kelpa and makes two pictures: a galaxy, and a splash blurred by its motion.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/install-packages.sh --no-tests
cmake -S . -B build/demo -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELPA_BENCH=OFF -DBUILD_TESTING=OFF
cmake --build build/demo --target kelpa_tool --parallel "$(nproc)"
kelpa=$(find build/demo -name kelpa -type f -perm -u+x -print -quit)

mkdir -p out
show() {
    echo "\$ kelpa $*"
    "$kelpa" "$@"
}
show generate galaxy --count 200000 --seed 1 -o out/galaxy.ply
show render out/galaxy.ply -o out/galaxy.png
show generate splash --count 60000 --seed 1 -o out/splash.ply
# Velocities are per second: a shutter open for half of a 24th, as in film.
show render out/splash.ply --motion velocity -o out/splash-blurred.png

echo
echo "The pictures: $PWD/out/galaxy.png and $PWD/out/splash-blurred.png"
