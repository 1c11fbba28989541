#!/usr/bin/env bash
# Pictures by 1, 2, 4 and 7 processes beside those of one, byte for byte, and what ends them all.
# $1: kelpa, $2: kelpa-mpi; without mpirun the exit code is 77.
set -uo pipefail
kelpa=$1
kelpa_mpi=$2
if ! command -v mpirun >/dev/null; then
    echo "compare.sh: skipped: there is no mpirun"
    exit 77
fi
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder" || exit 1

# Both makes of MPI start more processes than there are processors only when told so.
export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1 OMPI_MCA_rmaps_base_oversubscribe=1
export OMPI_MCA_mpi_yield_when_idle=1 TMPDIR=$folder
failures=0
fail() {
    echo "compare.sh: $*"
    failures=$((failures + 1))
}
together() { timeout 60 mpirun -n "$1" "$kelpa_mpi" render "${@:2}" -n 1 --progress none; }

# $1: what is shown; $2: numbers of processes; $3: the output; then options: the same files as by
# one process
same() {
    local what=$1 numbers=$2 output=$3
    shift 3
    rm -rf alone && mkdir alone
    "$kelpa" render "$@" -o "alone/$output" -n 2 -q || fail "$what: one process failed"
    for number in $numbers; do
        rm -rf many && mkdir many
        together "$number" "$@" -o "many/$output" -q || fail "$what by $number failed"
        diff -r alone many || fail "$what by $number is another picture"
    done
}

"$kelpa" generate cloud --count 20000 --seed 1 -o a.ply --progress none
"$kelpa" generate cloud --count 20000 --seed 2 -o b.ply --progress none
small=(--size 96x64 --samples 3 --block 500)

same still "1 2 4 7" x.exr a.ply "${small[@]}" --aov depth,normal,position,id
same moving "2 7" x.exr a.ply b.ply "${small[@]}" --aov id
same "along velocities" "4" x.exr a.ply "${small[@]}" --motion velocity --aov id
same "columns and ways" "2" x.exr a.ply "${small[@]}" --motion velocity --aov column:x,velocity
same "a turn" "4" x.####.exr a.ply "${small[@]}" --turntable 2
same "light alone, a part" "4" x.exr a.ply "${small[@]}" --shade lit --shadows --crop 20,11,71,50
same flat "2" x.exr a.ply "${small[@]}" --shade flat --color-by x --aov id
same "more processes than blocks" "7" x.exr a.ply --size 96x64 --samples 3 --block 20000
cp a.ply frame.1.ply
cp b.ply frame.2.ply
same frames "2" x.####.exr 'frame.{}.ply' --frames 1:2 "${small[@]}"

# $1: exit code, $2: what is told; then the command
ends() {
    local code=$1 text=$2
    shift 2
    "$@" >told 2>&1
    local got=$?
    [[ $got == "$code" ]] || fail "exit code $got instead of $code of: $*"
    [[ $(grep -c "$text" told) == 1 ]] || { cat told; fail "not told once: $text"; }
}
head -c 3000 a.ply >cut.ply
ends 3 "kelpa-mpi: cut.ply" together 4 cut.ply -o x.png
ends 3 "kelpa-mpi: none.ply" together 4 none.ply -o x.png
ends 2 "kelpa-mpi: .*--eye" together 3 a.ply --eye 1,1,1 --look-at 1,1,1 -o x.png
ends 4 "kelpa-mpi: " together 2 a.ply "${small[@]}" -o no/folder/x.png
# One of several has another file.
# shellcheck disable=SC2016 # the inner shell is to see the rank
ends 3 "kelpa-mpi: rank 2 on" timeout 60 mpirun -n 4 bash -c \
    'file=a.ply; [[ ${OMPI_COMM_WORLD_RANK:-$PMI_RANK} == 2 ]] && file=cut.ply
     exec "$0" render $file -o x.png -n 1 --progress none' "$kelpa_mpi"
# A disk that is full for the first one, which writes.
ln -s /dev/full full.png
ends 4 "kelpa-mpi: " together 2 a.ply "${small[@]}" -o full.png
[[ -z $(find . -name 'x.png*') ]] || fail "a failed run leaves a file"

# Ctrl-C ends all, and leaves no picture.
timeout 60 mpirun -n 3 "$kelpa_mpi" render a.ply -o late.exr --size 3000x2000 --samples 256 -n 1 \
    --progress none >told 2>&1 &
run=$!
sleep 2
pkill -INT -P "$run" mpirun
wait "$run" && fail "a run that was interrupted says that it is done"
[[ -z $(find . -name 'late*') ]] || fail "an interrupted run leaves a file"

[[ $failures == 0 ]] && echo "compare.sh: all the same"
[[ $failures == 0 ]]
