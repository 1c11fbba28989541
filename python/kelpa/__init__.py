"""Ray tracing of particle systems: millions of exact spheres or points, still or moving.

    import numpy as np, kelpa

    positions = np.random.rand(1_000_000, 3).astype(np.float32)
    cloud = kelpa.build(positions, 0.002)
    hits = cloud.intersect(origins=[0.5, 0.5, -1.0], directions=[[0, 0, 1], [0, 0.1, 1]])
    hits.t, hits.index, hits.normal, hits.type, hits.mask
    picture = cloud.render(width=640, height=480)        # (480, 640, 4) float32; shows itself

    atoms = kelpa.Primitive(kelpa.read("snapshot.dump", color_by="c_pe"))
    atoms.render(shade="ao", samples=16).save("atoms.png")

Particles are described by `Particles` (which `read`, `from_ase` and others make), put into a tree
by `Primitive` (or both at once by `build`), and asked by `Primitive.intersect` and
`Primitive.render`.

Precision. Geometry is in single precision: arrays of float32 in C order are used in place, others
are converted to it. Particles far from zero compared with their extent are copied to where single
precision is finer; what goes in and comes out stays in their coordinates.

Threads. Builds, rays and pictures use all processors that this process may use, or `threads` of
them, and let other Python threads run meanwhile. A primitive may be asked from several threads at
once. Results do not depend on the number of threads, except which of several particles is reported
that are hit at the same distance, which may depend on the build.

Progress and interruption. `progress`, where it is accepted, is called as progress(fraction,
message) on the thread that called, some twenty times a second; fraction is None where it is not
known. An exception that it raises ends the work and comes out of the call. So does Ctrl-C, as
KeyboardInterrupt.

Errors. ValueError (or TypeError) says which argument cannot be used and what was expected;
ReadError where in a file something is wrong; MemoryError that memory ran out.
"""

from ._progress import Progress
from .adapters import from_ase, from_dataframe, from_mdanalysis
from .camera import Camera
from .files import Frames, NoSuchFrame, ReadError, frames, join, read
from .hits import Hits
from .particles import Cell, Particles
from .pictures import Picture, to_srgb
from .primitive import Primitive, build
from .view import View, view

__version__ = "0.1.0"
__all__ = [
    "Camera", "Cell", "Frames", "Hits", "NoSuchFrame", "Particles", "Picture", "Primitive",
    "Progress", "ReadError", "View", "build", "frames", "from_ase", "from_dataframe",
    "from_mdanalysis", "join", "read", "to_srgb", "view",
]
