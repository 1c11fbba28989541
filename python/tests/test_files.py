"""Files read from Python, and their pictures beside the command's."""

import copy
import os
import pickle
import signal
import struct
import subprocess
import tempfile
import threading
import unittest
import zlib
from pathlib import Path

import numpy as np

import kelpa

F = np.float32
COMMAND = os.environ.get("KELPA_COMMAND")

WATER = """3
Lattice="4 0 0 0 5 0 0 0 6" Properties=species:S:1:pos:R:3:velo:R:3:charge:R:1 pbc="T T F"
O {0}.0 0.0 0.0 1 0 0 -0.8
H {0}.5 0.5 0.0 0 1 0 0.4
H {0}.5 -0.5 0.0 0 0 1 0.4
"""


def by_command(*arguments):
    if not COMMAND:
        raise unittest.SkipTest("needs the command, whose path is in KELPA_COMMAND")
    subprocess.run([COMMAND, *map(str, arguments)], check=True, capture_output=True)


def filters_of(png):
    """How the rows of a PNG are filtered, by the numbers of the format."""
    packed, at = b"", 8
    while at < len(png):
        size, kind = struct.unpack(">I4s", png[at:at + 8])
        body = png[at + 8:at + 8 + size]
        if kind == b"IHDR":
            width, channels = struct.unpack(">I", body[:4])[0], {2: 3, 6: 4}[body[9]]
        if kind == b"IDAT":
            packed += body
        at += 12 + size
    return set(zlib.decompress(packed)[::1 + channels * width])


class WithFolder(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.water = self.folder / "water.xyz"
        self.water.write_text("".join(WATER.format(i) for i in range(4)))


@unittest.skipIf(kelpa._native.missing, "this build reads no files")
class Files(WithFolder):
    def test_have_the_looks_that_are_asked_for(self):
        water = kelpa.read(self.water, radii={"O": 1.5}, colors={"H": "lime"})
        np.testing.assert_array_equal(water.radii, F([1.5, 1.1, 1.1]))
        np.testing.assert_array_equal(water.colors[1], [0, 1, 0])
        magma = kelpa.read(self.water, color_by="charge", colormap="magma_r", range=(-0.8, 0.4))
        self.assertGreater(magma.colors[0].min(), 0.5)  # its pale end
        self.assertIn("length of velo.x", " ".join(kelpa.read(self.water, color_by="velo").notes))
        some = kelpa.read(self.water, select="element == H and y > 0")
        np.testing.assert_array_equal(some.positions, F([[0.5, 0.5, 0]]))
        np.testing.assert_allclose(some.columns["charge"], [0.4], rtol=1e-6)
        self.assertEqual(len(kelpa.read(self.water, replicate=(1, 2, 2), slice="-z:-5")), 6)
        with self.assertRaisesRegex(ValueError, r"equality is written ==\n  y = 2\n    \^"):
            kelpa.read(self.water, select="y = 2")
        for option, value in (("colormap", "jet"), ("colors", {"O": "reed"}), ("radii", {"O": -1})):
            with self.assertRaisesRegex(ValueError, option):
                kelpa.read(self.water, color_by="charge", **{option: value})

    def test_are_particles_with_their_columns(self):
        water = kelpa.read(self.water)
        np.testing.assert_array_equal(water.positions, F([[0, 0, 0], [0.5, 0.5, 0], [0.5, -0.5, 0]]))
        np.testing.assert_allclose(water.radii, [1.52, 1.10, 1.10])
        np.testing.assert_array_equal(water.colors[1], [1, 1, 1])
        np.testing.assert_allclose(water.columns["charge"], [-0.8, 0.4, 0.4], rtol=1e-6)
        np.testing.assert_array_equal(water.columns["element"], [8, 1, 1])
        np.testing.assert_array_equal(water.columns["velocity"], np.eye(3))
        np.testing.assert_array_equal(water.cell.edges, np.diag([4, 5, 6]))
        self.assertEqual(water.cell.periodic, (True, True, False))
        self.assertIn("van der Waals radii by element", water.notes)
        np.testing.assert_array_equal(copy.deepcopy(water).columns["charge"], water.columns["charge"])
        small = kelpa.read(self.water, -1, radius=0.25, color="red", columns=[], points=True)
        np.testing.assert_array_equal(small.radii, F([0.25] * 3))
        np.testing.assert_array_equal(small.colors, [[1, 0, 0]] * 3)
        self.assertEqual((small.positions[0, 0], small.type), (3, "point"))
        self.assertNotIn("charge", small.columns)
        moving = kelpa.read(self.water, motion="velocity", shutter=(0, 0.5), dt=2)
        np.testing.assert_allclose(moving.positions1 - moving.positions, np.eye(3))
        onward = kelpa.read(self.water, 1, motion="next", shutter=(0, 1))
        np.testing.assert_allclose(onward.positions1 - onward.positions, [[1, 0, 0]] * 3)

    def test_have_names_as_text(self):
        path = self.folder / "sites.xyz"
        path.write_text("3\nstep=7 Time=0.5 Properties=pos:R:3:site:S:1\n0 0 0 top\n2 0 0 side\n4 0 0 top\n")
        named = kelpa.read(path, radius=1, color_by="site")
        self.assertEqual(named.columns["site"].tolist(), ["top", "side", "top"])
        self.assertEqual((named.step, named.time), (7, 0.5))
        np.testing.assert_array_equal(named.colors[0], named.colors[2])
        self.assertTrue((named.colors[0] != named.colors[1]).any())

    def test_have_frames_that_are_counted_and_gone_through(self):
        frames = kelpa.frames(self.water, radius=1)
        self.assertEqual([p.positions[0, 0] for p in frames], [0, 1, 2, 3])
        self.assertEqual((len(frames), frames.numbers), (4, [0, 1, 2, 3]))
        self.assertEqual([p.positions[0, 0] for p in frames[1:3]], [1, 2])
        for i in (2, 7):
            (self.folder / f"cache.{i:02}.xyz").write_text(WATER.format(i))
        sequence = kelpa.frames(self.folder / "cache.##.xyz")
        self.assertEqual(sequence.numbers, [2, 7])
        self.assertEqual(sequence[-1].positions[0, 0], 7)
        (self.folder / "cache.08.xyz").write_text(WATER.format(8))  # steps of one, then
        gap = kelpa.read(self.folder / "cache.##.xyz", 2, motion="next")
        self.assertIn("after 5 frames' time; the motion is that of one", " ".join(gap.notes))
        still = kelpa.read(self.water, 3, motion="next")
        self.assertIn("no frame follows", still.notes[0])
        self.assertFalse(still.is_moving)
        with self.assertRaises(kelpa.NoSuchFrame):
            kelpa.read(self.water, 9)

    def test_keep_cameras_as_the_command_does(self):
        water = kelpa.Primitive(kelpa.read(self.water, radius=1))
        path = self.folder / "camera.json"
        for ortho in (False, True):
            camera = kelpa.Camera.framing(water, aspect=(40, 30), ortho=ortho)
            camera.save(path)
            again = kelpa.Camera.load(path)
            np.testing.assert_array_equal(water.render(camera, 40, 30), water.render(again, 40, 30))
            self.assertEqual(again.parallel_height is None, not ortho)
        path.write_text('{"camera": {"eye": [0, 0, 9]}}')
        with self.assertRaisesRegex(kelpa.ReadError, "camera.json: the camera lacks 'lookAt'"):
            kelpa.Camera.load(path)

    def test_of_one_snapshot_are_read_together(self):
        lines = WATER.format(1).splitlines(keepends=True)
        halves = [self.folder / "a.xyz", self.folder / "b.xyz"]
        halves[0].write_text("2\n" + "".join(lines[1:4]))
        halves[1].write_text("1\n" + "".join([lines[1], lines[4]]))
        whole, both = kelpa.read(self.water, 1, radius=1), kelpa.read(halves, radius=1)
        np.testing.assert_array_equal(both.positions, whole.positions)
        np.testing.assert_array_equal(both.columns["charge"], whole.columns["charge"])
        self.assertEqual(len(kelpa.frames([self.water, self.water])), 4)
        with self.assertRaises(FileNotFoundError):
            kelpa.read([self.water, "nowhere.xyz"])
        with self.assertRaisesRegex(ValueError, "path: expected at least one"):
            kelpa.read([])

    def test_that_cannot_be_read_are_refused_in_words_of_python(self):
        garbage = self.folder / "garbage.dat"
        garbage.write_bytes(bytes(range(256)) * 9)
        read, water = kelpa.read, self.water
        for call, words in (
            (lambda: read(garbage), "garbage.dat.*format="),
            (lambda: read(water, format="stl"), "format: .*'xyz'.*'stl'"),
            (lambda: read(water, color_by="mass"), "mass"),
            (lambda: read(water, columns=["mass"]), "mass"),
            (lambda: read(water, assembly=1), "assembly= is for"),
            (lambda: read(water, elements="O,Q"), "elements: .*'O,Q'"),
            (lambda: read(water, elements="O,H"), "no numbered types for elements="),
            (lambda: read(water, radius=-1), "radius: .*-1"),
            (lambda: read(water, radii="ionic"), "radii: .*ionic"),
            (lambda: read(water, range=(0, 1)), "range: .*color_by"),
            (lambda: read(water, color="#12"), "color: .*#12"),
            (lambda: read(water, motion=str(garbage)), "garbage.dat"),
        ):
            with self.subTest(words), self.assertRaisesRegex(ValueError, words) as raised:
                call()
            self.assertNotIn("--", str(raised.exception))
        for name in ("color_by", "radius_from", "columns", "elements"):
            with self.assertRaisesRegex(TypeError, f"^{name}: .*found 3"):
                read(water, **{name: 3})
        for asked in ({"columns": "charge"}, {"columns": ["charge"]}, {"color_by": "charge"}):
            charges = read(water, **asked).columns["charge"]
            np.testing.assert_allclose(charges, [-0.8, 0.4, 0.4], rtol=1e-6)
        with self.assertRaises(FileNotFoundError):
            read(self.folder / "nowhere.ply")
        with self.assertRaisesRegex(TypeError, "colour"):
            kelpa.frames(self.water, colour="red")

    def test_end_with_ctrl_c(self):
        previous = signal.signal(signal.SIGINT, signal.default_int_handler)
        self.addCleanup(signal.signal, signal.SIGINT, previous)
        large = self.folder / "large.xyz"
        row = b"H 1.0 2.0 3.0\n"
        large.write_bytes(b"4000000\n\n" + row * 4_000_000)
        stop = threading.Timer(0.2, os.kill, (os.getpid(), signal.SIGINT))
        stop.start()
        with self.assertRaises(KeyboardInterrupt):
            kelpa.read(large)
        stop.join()

        def enough(part, message):
            raise LookupError(message)

        with self.assertRaisesRegex(LookupError, "Reading"):
            kelpa.read(large, progress=enough)


@unittest.skipIf(kelpa._native.missing, "this build writes no pictures")
class PicturesOfFiles(WithFolder):
    """The command and the module make the same bytes of the same file, camera and look."""

    look = dict(samples=3, shade="ao", background="sky")

    def check(self, path, options, particles, name="a.png", camera=None, **look):
        by_command(
            "render", path, "-o", self.folder / ("command." + name), "--size", "97x61",
            "--samples", "3", "--quiet", *options,
        )
        primitive = kelpa.Primitive(particles)
        if callable(camera):
            camera = camera(primitive)
        picture = primitive.render(camera, 97, 61, **{**self.look, **look})
        picture.save(self.folder / ("python." + name))
        files = [(self.folder / f"{who}.{name}").read_bytes() for who in ("command", "python")]
        if name.endswith(".exr"):  # of three chunks; the command also tells of itself
            last = [file.index(b"worldToNDC") for file in files]
            files = [(file[i:i + 84], file[i + 85 + 24:]) for file, i in zip(files, last)]
        self.assertEqual(*files)
        return picture

    def sample(self, kind, count=3000):
        path = self.folder / f"{kind}.ply"
        by_command("generate", kind, "--count", count, "-o", path)
        return path

    def later(self):
        path = self.folder / "later.xyz"
        path.write_text("".join(WATER.format(i) for i in (0, 3)))
        return path

    def test_are_the_commands(self):
        splash, galaxy = self.sample("splash"), self.sample("galaxy")
        still = kelpa.read(splash)
        self.check(splash, [], still)
        self.check(splash, ["--shade", "lit", "--background", "none", "--view", "top"], still,
                   shade="lit", background=None,
                   camera=lambda p: kelpa.Camera.framing(p, aspect=(97, 61), view="top"))
        self.check(galaxy, ["--shade", "flat", "--color", "#3366cc", "--ortho", "--zoom", "2"],
                   kelpa.read(galaxy, color="#3366cc"), shade="flat",
                   camera=lambda p: kelpa.Camera.framing(p, aspect=(97, 61), ortho=True, zoom=2))
        self.check(splash, ["--eye", "3,-4,2.5", "--look-at", "0.1,0,0.3", "--fov", "50"], still,
                   camera=kelpa.Camera((3, -4, 2.5), (0.1, 0, 0.3), fov=50))
        self.check(splash, ["--motion", "velocity", "--shutter", "0:0.3"],
                   moving := kelpa.read(splash, motion="velocity", shutter=(0, 0.3)))
        picture = self.check(
            splash, ["--motion", "velocity", "--shutter", "0:0.3", "--crop", "0,0,97,48", "--aov",
                     "velocity,column:velocity"], moving, name="a.exr", aov="velocity,column:velocity", crop=(0, 0, 97, 48))
        self.assertGreater(np.abs(picture.layers["velocity"]).max(), 1)
        self.assertEqual(picture.layers["column.velocity"].shape, (48, 97, 3))
        self.check(self.water, ["--frame", "2", "--radii", "covalent", "--color-by", "charge"],
                   kelpa.read(self.water, 2, radii="covalent", color_by="charge"))
        self.check(self.water, ["--shadows", "--frame", "1", "--motion", later := self.later()],
                   kelpa.read(self.water, 1, motion=later))

    def test_are_the_commands_in_all_channels_and_far_from_zero(self):
        path = self.folder / "far.xyz"
        rng = np.random.default_rng(1)
        places = rng.random((400, 3)) + [1000, -2000, 0]
        path.write_text("400\nProperties=species:S:1:pos:R:3:q:R:1:velo:R:3\n" + "".join(
            f"Ar {x:.6} {y:.6} {z:.6} {i} .2 0 {i % 7 / 9}\n" for i, (x, y, z) in enumerate(places)
        ))
        far = kelpa.read(path, radius=0.05)
        np.testing.assert_array_equal(far.positions[:, 0], [F(f"{x:.6}") for x in places[:, 0]])
        picture = self.check(
            path, ["--radius", "0.05", "--crop", "20,10,80,50", "--aov",
                   layers := "depth,normal,id,position,velocity,column:q"],
            far, name="a.exr", aov=layers, crop=(20, 10, 80, 50),
        )
        hit = picture.id != kelpa.Picture.NOTHING
        self.assertTrue(hit.any() and not hit.all())
        np.testing.assert_array_equal(picture.layers["q"][hit], picture.id[hit])
        self.assertFalse(picture.layers["velocity"].any())
        with self.assertRaisesRegex(ValueError, "aov: no column 'p'; there are .*q"):
            kelpa.Primitive(far).render(aov="column:p")
        offset = picture.position[hit] - far.positions[picture.id[hit]]
        np.testing.assert_allclose(np.linalg.norm(offset, axis=1), 0.05, rtol=2e-2)
        camera = kelpa.Camera.framing(kelpa.Primitive(far), aspect=(97, 61))
        hits = kelpa.Primitive(far).intersect(*camera.rays(97, 61))
        self.assertGreater(hits.mask.sum(), 200)
        large = kelpa.Particles(far.positions * F(1e6), far.radii * F(1e6))
        seen = kelpa.Camera.framing(kelpa.Primitive(large), aspect=(97, 61))
        np.testing.assert_allclose(seen.eye, np.multiply(camera.eye, 1e6), rtol=1e-3)
        again = kelpa.Camera(seen.eye, seen.target, fov=seen.fov)
        self.assertGreater(kelpa.Primitive(large).intersect(*again.rays(97, 61)).mask.sum(), 200)

    def test_show_cells(self):
        cell = "--replicate", "2,1,1", "--cell"
        twice = kelpa.read(self.water, replicate=(2, 1, 1))
        self.assertEqual(twice.cell.copies, (2, 1, 1))
        dark = self.check(self.water, cell, twice, cell=True)
        red = self.check(self.water, [*cell, "--cell-color", "red", "--view", "top"], twice,
                         cell=True, cell_color="red",
                         camera=lambda p: kelpa.Camera.framing(p, aspect=(97, 61), view="top", cell=True))
        self.assertFalse((dark == red).all())
        tree = kelpa.Primitive(twice)
        with_cell = tree.render(cell=True, width=40, height=30)
        self.assertFalse((tree.render(width=40, height=30) == with_cell).all(), "edges stay behind")
        for wrong, words in (({"cell_color": "red"}, "cell_color: given without cell=True"),
                             ({"cell": True, "cell_color": "reed"}, "cell_color: .*reed")):
            with self.assertRaisesRegex(ValueError, words):
                tree.render(**wrong)
        with self.assertRaisesRegex(ValueError, "cell: the particles have none"):
            kelpa.build([[0, 0, 0]], 1).render(cell=True)

    def test_have_ids_as_a_column(self):
        path = self.folder / "ids.xyz"
        path.write_text("2\nProperties=pos:R:3:id:I:1\n0 0 0 7\n1 0 0 9\n")
        picture = self.check(path, ["--radius", ".4", "--aov", "column:id", "--crop", "0,0,97,48"],
                             kelpa.read(path, radius=0.4), name="a.exr", aov="column:id",
                             crop=(0, 0, 97, 48))
        self.assertEqual(set(np.unique(picture.layers["column.id"])), {0, 7, 9})

    def test_show_themselves_and_travel(self):
        picture = kelpa.Primitive(kelpa.read(self.water)).render(width=40, height=30, aov=["depth"])
        self.assertEqual(picture.shape, (30, 40, 4))
        png = picture._repr_png_()
        self.assertEqual(png[:8], b"\x89PNG\r\n\x1a\n")
        self.assertEqual(filters_of(png), {0}, "filters take time and gain nothing")
        self.assertIsNone(picture[..., 3]._repr_png_())
        again = pickle.loads(pickle.dumps(picture))
        np.testing.assert_array_equal(again, picture)
        np.testing.assert_array_equal(again.depth, picture.depth)
        brighter = np.minimum(picture * 2, 1)
        brighter.save(self.folder / "brighter.exr")
        with self.assertRaisesRegex(ValueError, "a.png cannot hold depth; write an .exr"):
            picture.save("a.png")
        with self.assertRaisesRegex(ValueError, "jpg"):
            np.array(picture).view(kelpa.Picture).save(self.folder / "a.jpg")
        with self.assertRaises(OSError):
            picture.save(self.folder / "nowhere" / "a.exr")

    def test_are_joined_from_tiles(self):
        tree = kelpa.Primitive(kelpa.read(self.water))
        files = [self.folder / f"{k}.exr" for k in (1, 2, 3)]
        looks = {"width": 40, "height": 60, "aov": ["id"], "background": "sky"}
        tree.render(**looks).save(self.folder / "whole.exr")
        for k, file in enumerate(files, 1):
            pickle.loads(pickle.dumps(tree.render(tile=(k, 3), **looks))).save(file)
        kelpa.join(self.folder / "joined.exr", files[::-1])
        whole, joined = (self.folder / f"{name}.exr" for name in ("whole", "joined"))
        self.assertEqual(whole.read_bytes(), joined.read_bytes())
        with self.assertRaisesRegex(kelpa.ReadError, r"is no tile.*render\(tile=\(k, n\)\)"):
            kelpa.join(joined, [whole])
        with self.assertRaisesRegex(kelpa.ReadError, "2 is missing"):
            kelpa.join(joined, files[::2])
        with self.assertRaises(FileNotFoundError):
            kelpa.join(joined, ["nowhere.exr"])
        for tile in ((0, 3), (1, 61), (1,), (1.0, 2)):
            with self.assertRaisesRegex(ValueError, "tile: expected k, n"):
                tree.render(tile=tile, **looks)


if __name__ == "__main__":
    unittest.main()
