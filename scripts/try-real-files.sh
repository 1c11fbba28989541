#!/usr/bin/env bash
# Reads the particle files that Debian's packages bring, as their users would, and prints how many of
# each suffix are read, which are refused, and why. Needs apt, dpkg-deb and a built command.
#   try-real-files.sh [KELPA] [FOLDER]     FOLDER keeps the packages for the next time
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
kelpa=$(realpath "${1:-build/release/tool/kelpa}")
folder=${2:-$(mktemp -d "${TMPDIR:-/tmp}/kelpa-real-files.XXXXXX")}
[[ $# -ge 2 ]] || trap 'rm -rf "$folder"' EXIT

packages=(libavogadro-data avogadro-utils gdis-data gromacs-data lammps-examples lammps-doc
          libghemical-data mustang-testdata pymol-data rasmol-doc rasmol theseus-examples garlic-doc
          python-mdanalysis-doc nwchem-data libcifpp-data openmpi-doc jmol python3-ase cp2k-data
          viewmol mcstas-comps psi4-data python-biopython-doc bioperl dssp raster3d
          quantum-espresso-data elmerfem-doc probabel-examples libcoordgen-dev)

mkdir -p "$folder/packages" "$folder/files"
for package in "${packages[@]}"; do
    [[ -d $folder/files/$package ]] && continue
    if ! (cd "$folder/packages" && apt-get download -q "$package" >/dev/null 2>&1); then
        echo "no package $package here" >&2
        continue
    fi
    dpkg-deb -x "$folder/packages/${package}"_*.deb "$folder/files/$package"
    rm "$folder/packages/${package}"_*.deb
done

find "$folder/files" -type f -regextype posix-extended -iregex \
    '.*(\.(pdb|ent|cif|mmcif|xyz|extxyz|gro|dump|lammpstrj|ply|bgeo|vdb|dcd|xtc|trr|h5md|h5|hdf5|ncdf|ncrst|nc)|/(data|dump)\.[^/]*)(\.(gz|xz|bz2|zst))?' |
    sort >"$folder/list"

: >"$folder/results"
while IFS= read -r file; do
    plain=$(basename "$file" | sed -E 's/\.(gz|xz|bz2|zst)$//I')
    case $plain in
        data.* | dump.*) suffix=${plain%%.*}. ;;
        *) suffix=.${plain##*.} ;;
    esac
    if message=$(timeout 60 "$kelpa" info -q "$file" 2>&1 >/dev/null); then
        printf 'read\t%s\t%s\n' "${suffix,,}" "$file" >>"$folder/results"
    else
        printf 'refused\t%s\t%s\t%s\n' "${suffix,,}" "$file" "${message#kelpa: }" >>"$folder/results"
    fi
done <"$folder/list"

awk -F '\t' '$1 == "refused" {print $4}' "$folder/results" | sed "s|^$folder/files/||"
echo
awk -F '\t' '{all[$2]++; read[$2] += $1 == "read"; n++; good += $1 == "read"}
    END {for (s in all) printf "%-12s %5d of %5d read\n", s, read[s], all[s] | "sort"; close("sort")
         printf "%-12s %5d of %5d read\n", "all", good, n}' "$folder/results"
