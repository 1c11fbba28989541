#!/usr/bin/env python3
"""Writes the small HDF5 and NetCDF files beside it, which tests read; needs h5py and netCDF4.

Particle i of a file stands at (i, i + 0.25, i + 0.5), moves by (1, 2, i) and has the id 100 + i,
counted through all kinds, in the order of the file.
"""
from pathlib import Path

import h5py
import netCDF4
import numpy as np

HERE = Path(__file__).parent


def places(first, count, kind="f8"):
    i = np.arange(first, first + count)
    return np.stack([i, i + 0.25, i + 0.5], axis=1).astype(kind)


def speeds(first, count):
    i = np.arange(first, first + count)
    return np.stack([np.full(count, 1), np.full(count, 2), i], axis=1).astype("f4")


def snapshot(name, kinds, totals=None, number=0, files=1, packed=False, ids=100, **header):
    """Particles of kinds, {number: (first, count)}, as Gadget and its kin write them."""
    with h5py.File(HERE / name, "w") as file:
        head = file.create_group("Header").attrs
        counts = [kinds.get(k, (0, 0))[1] for k in range(6)]
        head["NumPart_ThisFile"] = np.array(counts, "i4")
        head["NumPart_Total"] = np.array(totals or counts, "u4")
        head["NumFilesPerSnapshot"] = files
        head["MassTable"] = np.array([0, 0.5, 0, 0, 0, 0])
        head["Time"] = 0.25
        for key, value in header.items():
            head[key] = value
        for kind, (first, count) in kinds.items():
            group = file.create_group(f"PartType{kind}")
            options = {"compression": "gzip", "shuffle": True} if packed else {}
            group.create_dataset("Coordinates", data=places(first, count), **options)
            group.create_dataset("Velocities", data=speeds(first, count), **options)
            group["ParticleIDs"] = np.arange(ids + first, ids + first + count, dtype="u8")
            if kind == 0:
                group["SmoothingLength"] = np.full(count, 0.125, "f4")
                group["Masses"] = np.full(count, 0.75, "f4")


snapshot("gadget.hdf5", {0: (0, 3), 1: (3, 2), 4: (5, 1)}, BoxSize=10.0)
snapshot("swift.hdf5", {0: (0, 3)}, Code=np.bytes_("SWIFT"), BoxSize=[10.0, 20, 30], ids=2**63)
for number in range(2):
    kinds = {0: (2 * number, 2), 4: (4 + number, 1)}
    snapshot(f"eagle.{number}.hdf5", kinds, [4, 0, 0, 0, 2, 0], number, 2, packed=True, BoxSize=10.0)

with h5py.File(HERE / "species.h5", "w") as file:  # H5MD, of three frames, evenly one behind another
    file.create_group("h5md").attrs["version"] = [1, 1]
    atoms = file.create_group("particles/atoms")
    frames = np.stack([places(10 * frame, 4, "f4") for frame in range(3)])
    value = atoms.create_dataset("position/value", data=frames, chunks=(1, 4, 3), maxshape=(None, 4, 3))
    value.attrs["unit"] = np.bytes_("nm")
    step = atoms.create_dataset("position/step", data=10)
    step.attrs["offset"] = 5
    atoms["position/time"] = 0.5
    atoms["velocity/value"] = np.stack([speeds(0, 4)])  # only at the second of them
    atoms["velocity/step"] = [15]
    kind = h5py.special_dtype(enum=("i1", {"H": 1, "O": 8}))
    atoms.create_dataset("species", data=np.array([8, 1, 1, 8], "i1"), dtype=kind)
    box = atoms.create_group("box")
    box.attrs["dimension"] = 3
    box.attrs["boundary"] = [b"periodic", b"none", b"periodic"]
    box["edges"] = [1.0, 2.0, 3.0]
    few = file.create_group("particles/few")
    few["position/value"] = places(7, 1).reshape(1, 1, 3)[:, :, :2]  # flat
    few["position/step"] = [0]

with h5py.File(HERE / "openpmd.h5", "w", libver="latest") as file:
    file.attrs["openPMD"] = np.bytes_("1.1.0")
    file.attrs["particlesPath"] = np.bytes_("particles/")
    for iteration in (0, 200, 30):
        group = file.create_group(f"data/{iteration}")
        group.attrs["time"] = float(iteration)
        group.attrs["timeUnitSI"] = 0.5
        for name, first, count in (("electrons", 0, 2), ("ions", 2, 1)):
            particles = group.create_group(f"particles/{name}")
            for axis, column in zip("xyz", places(first, count, "f4").T):
                position = particles.create_dataset(f"position/{axis}", data=(column - 8) / 2)
                position.attrs["unitSI"] = 2.0
                offset = particles.create_group(f"positionOffset/{axis}")
                offset.attrs["value"] = 4.0
                offset.attrs["shape"] = np.array([count], "u8")
                offset.attrs["unitSI"] = 2.0
            particles["id"] = np.arange(100 + first, 100 + first + count, dtype="u8")
            if name == "ions":
                particles["charge"] = np.full(count, 1.5)

for name, frames in (("amber.nc", 2), ("restart.ncrst", 0)):
    with netCDF4.Dataset(HERE / name, "w", format="NETCDF3_64BIT_OFFSET") as file:
        file.Conventions = "AMBER" if frames else "AMBERRESTART"
        for dimension, length in (("atom", 3), ("spatial", 3), ("cell_spatial", 3), ("cell_angular", 3)):
            file.createDimension(dimension, length)
        file.createDimension("frame", None)
        over = ("frame",) if frames else ()
        kind = "f4" if frames else "f8"
        time = file.createVariable("time", kind, over)
        coordinates = file.createVariable("coordinates", kind, (*over, "atom", "spatial"))
        velocities = file.createVariable("velocities", kind, (*over, "atom", "spatial"))
        velocities.scale_factor = 2.0
        velocities.set_auto_scale(False)
        lengths = file.createVariable("cell_lengths", "f8", (*over, "cell_spatial"))
        angles = file.createVariable("cell_angles", "f8", (*over, "cell_angular"))
        for frame in range(max(frames, 1)):
            at = frame if frames else slice(None)
            time[at] = 12.5 + frame
            coordinates[at] = places(10 * frame, 3)
            velocities[at] = speeds(0, 3) / 2
            lengths[at] = [20, 21, 22]
            angles[at] = [90, 90, 90]
