#!/usr/bin/env bash
# Makes the same pictures with kelpa and with the ray tracer of Debian's package tachyon: the same
# spheres, camera, samples and lights, each program reading its own kind of file and writing the
# same kind of picture. Prints medians of the wall clock, of processor time and of rendering alone,
# in seconds, and how many times as long the other takes. Both run in turn, on all processors.
#   compare-pictures.sh [--runs N] [--format ppm|png] [--only NAME] [--kelpa PROGRAM] [CAPSID]
# CAPSID is a structure whose assembly 1 is built, such as the norovirus capsid 1IHM from the
# Protein Data Bank: 677,040 atoms. Without it as many spheres are made up. NAME is one of few,
# dense, capsid, uniform. The pictures stay in out/pictures, to be looked at.
set -euo pipefail
export LC_ALL=C

here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
runs=3 format=ppm only='' kelpa='' capsid=''
while [[ $# -gt 0 ]]; do
    case $1 in
    --runs) runs=$2 && shift 2 ;;
    --format) format=$2 && shift 2 ;;
    --only) only=$2 && shift 2 ;;
    --kelpa) kelpa=$2 && shift 2 ;;
    -*) sed -n '2,10s/^# //p' "$0" >&2 && exit 2 ;;
    *) capsid=$1 && shift ;;
    esac
done
if [[ -z $kelpa ]]; then
    for kelpa in "$here"/build/{release,demo,test}/tool/kelpa "$(command -v kelpa || true)"; do
        [[ -x $kelpa ]] && break
    done
fi
[[ -x $kelpa ]] || { echo "no kelpa is built; name it with --kelpa" >&2 && exit 2; }
command -v tachyon >/dev/null || { echo "tachyon is missing: apt-get install tachyon" >&2 && exit 2; }

pictures=$here/out/pictures
mkdir -p "$pictures"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

width=1280 height=720 fov=35 samples=16 occlusionRays=2

# spheres KIND COUNT: that many spheres, evenly spread in a cube (uniform) or in a thick shell such
# as a virus has (shell).
spheres() {
    awk -v kind="$1" -v count="$2" 'BEGIN {
        srand(1)
        print "ply\nformat ascii 1.0\nelement vertex " count
        print "property float x\nproperty float y\nproperty float z\nproperty float radius\nend_header"
        radius = kind == "shell" ? 1.7 : count ^ (-1 / 3)
        for (made = 0; made < count;) {
            x = 2 * rand() - 1; y = 2 * rand() - 1; z = 2 * rand() - 1
            distance = x * x + y * y + z * z
            if (kind == "shell" && (distance > 1 || distance < 0.3))
                continue
            scale = kind == "shell" ? 200 : 1
            printf "%.7g %.7g %.7g %.7g\n", x * scale, y * scale, z * scale, radius
            ++made
        }
    }'
}

# writeCamera NAME: prints the camera and the light for the other program, and writes NAME.camera
# with the options that give kelpa the same view: from (1, 0.6, 0.8) with y up, at a distance from
# which a ball around the centres just fits.
writeCamera() {
    awk -v fov=$fov -v samples=$samples -v camera="$scratch/$1.camera" '
        FNR == 1 { inBody = 0 }
        inBody && FNR == NR {
            for (axis = 1; axis <= 3; ++axis) {
                if (count == 0 || $axis < low[axis]) low[axis] = $axis
                if (count == 0 || $axis > high[axis]) high[axis] = $axis
            }
            ++count
        }
        inBody && FNR != NR {
            reach = ($1 - centre[1]) ^ 2 + ($2 - centre[2]) ^ 2 + ($3 - centre[3]) ^ 2
            if (reach > farthest) farthest = reach
        }
        /^end_header/ {
            inBody = 1
            for (axis = 1; axis <= 3; ++axis) centre[axis] = (low[axis] + high[axis]) / 2
        }
        END {
            split("-1 -0.6 -0.8", forward)
            for (axis = 1; axis <= 3; ++axis) forward[axis] /= sqrt(2)
            tangent = sin(fov * 3.14159265358979 / 360) / cos(fov * 3.14159265358979 / 360)
            for (axis = 1; axis <= 3; ++axis)
                eye[axis] = centre[axis] - forward[axis] * sqrt(farthest) * sqrt(1 + 1 / tangent ^ 2)
            across = sqrt(forward[1] ^ 2 + forward[3] ^ 2)
            right[1] = -forward[3] / across; right[2] = 0; right[3] = forward[1] / across
            up[1] = -right[3] * forward[2]
            up[2] = right[3] * forward[1] - right[1] * forward[3]
            up[3] = right[1] * forward[2]
            for (axis = 1; axis <= 3; ++axis) # as the light of kelpa, over the left shoulder
                key[axis] = -0.55 * right[axis] + 0.8 * up[axis] - 0.6 * forward[axis]
            printf "--eye %.9g,%.9g,%.9g --look-at %.9g,%.9g,%.9g --up y --fov %g\n", eye[1], eye[2],
                eye[3], centre[1], centre[2], centre[3], fov >camera
            printf "CAMERA\nPROJECTION PERSPECTIVE\nZOOM %.9g\nASPECTRATIO 1.0\nANTIALIASING %d\n",
                0.5 / tangent, samples - 1
            printf "RAYDEPTH 1\nCENTER %.9g %.9g %.9g\nVIEWDIR %.9g %.9g %.9g\nUPDIR 0 1 0\nEND_CAMERA\n",
                eye[1], eye[2], -eye[3], forward[1], forward[2], -forward[3]
            printf "DIRECTIONAL_LIGHT DIRECTION %.9g %.9g %.9g COLOR 0.64 0.64 0.64\n", -key[1],
                -key[2], key[3]
        }' "$scratch/$1.text" "$scratch/$1.text"
}

# writeSpheres NAME: prints the spheres for the other program, with the radii of kelpa.
writeSpheres() {
    awk '
        BEGIN { radiusOf[6] = 1.7; radiusOf[7] = 1.55; radiusOf[8] = 1.52; radiusOf[15] = radiusOf[16] = 1.8 }
        inBody {
            radius = radiusAt ? $radiusAt : radiusOf[$elementAt]
            printf "SPHERE CENTER %s %s %.9g RAD %s A\n", $1, $2, -$3, radius
        }
        /^property/ {
            ++columns
            if ($3 == "radius") radiusAt = columns
            if ($3 == "element") elementAt = columns
        }
        /^end_header/ { inBody = 1 }' "$scratch/$1.text"
}

# writeScenes NAME: from NAME.text, a PLY of text with x y z first and a radius or an element, the
# other program's scene for each light. Its axes are left-handed: all is mirrored at z = 0.
writeScenes() {
    {
        writeCamera "$1"
        echo "BACKGROUND 0.6 0.65 0.7"
        echo "TEXDEF A AMBIENT 0.3 DIFFUSE 1 SPECULAR 0 OPACITY 1 COLOR 0.26 0.42 0.62 TEXFUNC 0"
        writeSpheres "$1"
        echo END_SCENE
    } >"$scratch/$1.body"
    for light in flat shadow occlusion; do
        {
            printf 'BEGIN_SCENE\nRESOLUTION %d %d\nSHADER_MODE FULL\n' $width $height
            if [[ $light == occlusion ]]; then
                printf 'AMBIENT_OCCLUSION\nAMBIENT_COLOR 0.45 0.45 0.45\nRESCALE_DIRECT 0.7\n'
                echo "SAMPLES $occlusionRays"
            fi
            echo END_SHADER_MODE
            cat "$scratch/$1.body"
        } >"$scratch/$1.$light.dat"
    done
}

# median FILE: of its numbers, one a line.
median() { sort -g "$1" | awk '{ a[NR] = $1 } END { print a[int((NR + 1) / 2)] }'; }

# timed NAME COMMAND...: appends wall clock and processor time to NAME.wall and NAME.cpu.
timed() {
    local name=$1 times
    shift
    local TIMEFORMAT='%R %U %S'
    { times=$( { time "$@" >"$scratch/said" 2>&1; } 2>&1 ); } || { cat "$scratch/said" >&2 && exit 1; }
    awk '{ print $1 }' <<<"$times" >>"$scratch/$name.wall"
    awk '{ print $2 + $3 }' <<<"$times" >>"$scratch/$name.cpu"
}

comparePictures() { # NAME INPUT LIGHT
    local name=$1 input=$2 light=$3 view lights peerLights=''
    read -ra view <"$scratch/$name.camera"
    case $light in
    flat) lights=(--shade flat) peerLights=-lowestshade ;;
    shadow) lights=(--shade lit --shadows) ;;
    occlusion) lights=(--shade ao --ao-samples $occlusionRays) ;;
    esac
    rm -f "$scratch"/{ours,peer}.{wall,cpu,render}
    for ((run = 0; run < runs; ++run)); do
        timed ours "$kelpa" render $input "${view[@]}" "${lights[@]}" --color '#8bacce' --quiet \
            --size ${width}x$height --samples $samples --stats="$scratch/stats.json" \
            -o "$pictures/$name-$light-kelpa.$format"
        sed -n 's/.*"renderSeconds": \([0-9.]*\).*/\1/p' "$scratch/stats.json" >>"$scratch/ours.render"
        timed peer tachyon "$scratch/$name.$light.dat" +V $peerLights -format ${format^^} \
            -o "$pictures/$name-$light-tachyon.$format"
        sed -n 's/.*Ray Tracing Time: *\([0-9.]*\) .*/\1/p' "$scratch/said" >>"$scratch/peer.render"
    done
    for what in ours peer; do
        for kind in wall cpu render; do
            declare $what$kind="$(median "$scratch/$what.$kind")"
        done
    done
    awk -v name="$name" -v light="$light" -v a="$ourswall" -v b="$ourscpu" -v c="$oursrender" \
        -v d="$peerwall" -v e="$peercpu" -v f="$peerrender" 'BEGIN {
        printf "%-8s %-10s %7.2f %7.2f %7.2f %8.2f %7.2f %7.2f %8.2f %7.2f %7.2f\n", name, light,
            a, b, c, d, e, f, d / a, e / b, f / c }'
}

echo "                        kelpa                    tachyon          times as long"
echo "spheres  light         wall     cpu  render     wall     cpu  render     wall     cpu  render"
for name in few dense capsid uniform; do
    [[ -z $only || $only == "$name" ]] || continue
    input=$scratch/$name.ply
    case $name in
    few) "$kelpa" generate crystal --count 24 -q -o "$input" ;;
    dense) "$kelpa" generate crystal --count 110000 -q -o "$input" ;;
    capsid)
        if [[ -n $capsid ]]; then
            input="$capsid --assembly 1"
        else
            spheres shell 677040 >"$scratch/$name.made"
        fi ;;
    uniform) spheres uniform 1000000 >"$scratch/$name.made" ;;
    esac
    if [[ -f $scratch/$name.made ]]; then
        "$kelpa" convert "$scratch/$name.made" -q -o "$input"
    fi
    "$kelpa" convert $input --ascii -q -o "$scratch/$name.text.ply"
    mv "$scratch/$name.text.ply" "$scratch/$name.text"
    writeScenes "$name"
    for light in flat shadow occlusion; do
        comparePictures "$name" "$input" "$light"
    done
    rm -f "$scratch/$name".*
done
