#!/usr/bin/env bash
# Checks who includes whom: prints every forbidden include and fails if there is one.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
failed=0
# forbid FOLDER PATTERN: no source below FOLDER may include what matches PATTERN.
forbid() {
    if grep -rnE "^#include \"($2)" --include='*.h' --include='*.cpp' "$1"; then
        echo "  ... $1 must not include these" >&2
        failed=1
    fi
}
# Programs use what is below them, and nobody uses programs.
programs='tool/|mpi/|bench/|tests/|examples/|python/'
# The view stands between the way to a picture and the programs that show it.
forbid view "kelpa/(spheretree|particleprimitives)|pipeline/(samples|readers)|$programs"
forbid pipeline 'view/'
forbid kelpa 'view/'
forbid kelpa/foundation "kelpa/(spheretree|particleprimitives|host)|pipeline/|$programs"
forbid kelpa/spheretree "kelpa/(particleprimitives|host)|pipeline/|$programs"
forbid kelpa/spheretree/static 'kelpa/spheretree/motionblur'
forbid kelpa/spheretree/motionblur 'kelpa/spheretree/static'
forbid kelpa/particleprimitives "kelpa/host|pipeline/|$programs"
forbid kelpa/host "kelpa/(spheretree|particleprimitives)|pipeline/|$programs"
# The way from a file to a picture, each room above all that it includes.
forbid pipeline/files "kelpa/(spheretree|particleprimitives|host)|pipeline/(readers|samples|scene|picture|imagefile)|$programs"
# Kinds of formats know nothing of each other.
for kind in lammps molecules programs trajectories; do
    others=lammps/molecules/programs/trajectories
    others=${others/$kind/never}
    forbid pipeline/files/formats/$kind "pipeline/files/formats/(${others//\//|})/"
done
forbid pipeline/readers "kelpa/|pipeline/(samples|scene|picture|imagefile)|$programs"
forbid pipeline/samples "kelpa/(spheretree|particleprimitives|host)|pipeline/(readers|scene|picture|imagefile)|$programs"
forbid pipeline/scene "kelpa/spheretree|pipeline/(readers|samples|picture|imagefile)|$programs"
forbid pipeline/picture "kelpa/spheretree|pipeline/(readers|samples|imagefile)|$programs"
forbid pipeline/imagefile "kelpa/(spheretree|particleprimitives|host)|pipeline/(readers|samples|scene)|$programs"
for program in tool bench examples python; do
    others=${programs//$program\//never/}
    forbid $program "$others"
done
# The Python module is also built where libraries for files lack, from sources that need none.
mapfile -t sources < <(for room in files scene picture; do
    sed -n "/^kelpa_plain(/,/)/p" "pipeline/$room/CMakeLists.txt" |
        grep -oE '[a-z]+\.cpp' | sed "s|^|pipeline/$room/|"
done)
[[ ${#sources[@]} -gt 0 ]] || { echo "  ... no kelpa_plain in pipeline/" >&2; failed=1; }
for ((i = 0; i < ${#sources[@]}; ++i)); do
    if grep -HnE '^#include <(fmt|zlib|png|lzma|bzlib|zstd|gemmi|tao|xxhash|nlohmann|ft2build|OpenEXR|Imf|Imath)' "${sources[i]}"; then
        echo "  ... it is among the sources that need no library (kelpa_plain)" >&2
        failed=1
    fi
    while read -r header; do
        [[ " ${sources[*]} " == *" $header "* ]] || sources+=("$header")
    done < <(sed -nE 's/^#include "(pipeline[^"]+)"$/\1/p' "${sources[i]}")
done
# Signals are the process's business: work hears of them through its progress alone.
if grep -rn 'InterruptScope' --include='*.h' --include='*.cpp' pipeline; then
    echo "  ... pipeline must not ask for signals" >&2
    failed=1
fi
exit $failed
