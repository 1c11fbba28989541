"""Objects that analysts already have, as particles."""

import importlib
import inspect
import unittest
import warnings

import numpy as np

import kelpa

F = np.float32


def imported(name):
    """The module, or a skipped test that names the package which has it."""
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            return importlib.import_module(name)
    except ImportError:
        raise unittest.SkipTest(f"needs Debian's python3-{name.lower()}") from None


class OtherObjects(unittest.TestCase):
    def test_are_refused_by_the_argument(self):
        for take, words in (
            (kelpa.Primitive, "particles: expected a kelpa.Particles, found int"),
            (kelpa.Camera.framing, "primitive: expected a kelpa.Primitive, found int"),
            (kelpa.from_ase, "atoms: expected an ase.Atoms, found int, which has no 'arrays'"),
            (kelpa.from_mdanalysis, "group: .* found int, which has no 'atoms'"),
            (kelpa.from_dataframe, "frame: .* found int, which has no 'keys'"),
        ):
            with self.assertRaisesRegex(TypeError, words):
                take(3)


class Ase(unittest.TestCase):
    def atoms(self, **options):
        ase = imported("ase")
        return ase.Atoms("OH2", [[0, 0, 0], [0.96, 0, 0], [-0.24, 0.93, 0]], **options)

    def test_atoms_have_the_radii_and_colours_of_their_elements(self):
        atoms = self.atoms(cell=[4, 5, 6], pbc=[True, True, False])
        atoms.set_array("charge", np.array([-0.8, 0.4, 0.4]))
        water = kelpa.from_ase(atoms)
        np.testing.assert_array_equal(water.positions, atoms.positions.astype(F))
        np.testing.assert_allclose(water.radii, [1.52, 1.10, 1.10])
        self.assertGreater(water.colors[0, 0], 5 * water.colors[0, 1])  # oxygen is red
        np.testing.assert_array_equal(water.colors[1], [1, 1, 1])
        np.testing.assert_array_equal(water.cell.edges, np.diag([4, 5, 6]))
        self.assertEqual(water.cell.periodic, (True, True, False))
        self.assertEqual(list(water.columns), ["charge"])
        self.assertEqual(water.notes, ("van der Waals radii by element",))
        bonded = kelpa.from_ase(atoms, radii="covalent", radius_scale=2, color_by="charge")
        np.testing.assert_allclose(bonded.radii, [1.32, 0.62, 0.62], rtol=1e-6)
        np.testing.assert_array_equal(bonded.colors[1], bonded.colors[2])
        self.assertGreater(bonded.colors[1].sum(), bonded.colors[0].sum())  # dark blue to yellow
        hits = kelpa.Primitive(bonded).intersect([0, 0, 9], [0, 0, -1])
        np.testing.assert_allclose(hits.t, 9 - 1.32, rtol=1e-6)

    def test_atoms_move_along_their_velocities(self):
        atoms = self.atoms()
        with self.assertRaisesRegex(ValueError, "motion: no velocities in the atoms"):
            kelpa.from_ase(atoms, motion="velocity")
        atoms.set_velocities([[1, 0, 0], [0, 2, 0], [0, 0, 0]])
        moving = kelpa.from_ase(atoms, motion="velocity", dt=0.5, shutter=(0, 1), points=True)
        np.testing.assert_allclose(
            moving.positions1 - moving.positions, [[0.5, 0, 0], [0, 1, 0], [0, 0, 0]], atol=1e-6
        )
        self.assertEqual((moving.type, moving.is_moving), ("point", True))


class MdAnalysis(unittest.TestCase):
    def universe(self):
        mda = imported("MDAnalysis")
        universe = mda.Universe.empty(4, trajectory=True, velocities=True)
        universe.add_TopologyAttr("elements", ["C", "Na", "X", "O"])
        universe.add_TopologyAttr("charges", [0.0, 1.0, 0.5, -1.0])
        universe.add_TopologyAttr("ids", [11, 12, 13, 14])
        universe.atoms.positions = np.arange(12).reshape(4, 3)
        universe.atoms.velocities = np.ones((4, 3))
        universe.dimensions = [10, 20, 30, 90, 90, 90]
        return universe

    def test_groups_are_read_as_they_are_selected(self):
        universe = self.universe()
        some = kelpa.from_mdanalysis(universe.atoms[[3, 1]])
        np.testing.assert_array_equal(some.positions, F([[9, 10, 11], [3, 4, 5]]))
        np.testing.assert_array_equal(some.ids, [14, 12])
        np.testing.assert_allclose(some.radii, [1.52, 1.86])
        np.testing.assert_allclose(some.cell.edges, np.diag([10, 20, 30]), atol=1e-5)
        everyone = kelpa.from_mdanalysis(universe, color_by="charges", range=(-1, 1), motion="velocity")
        self.assertIn("1.70 for 1 particles of unknown elements", everyone.notes)
        np.testing.assert_allclose(everyone.positions1, everyone.positions + 0.5)
        self.assertEqual(len(np.unique(everyone.colors, axis=0)), 4)

    def test_groups_radii_come_before_those_of_elements(self):
        universe = self.universe()
        universe.add_TopologyAttr("radii", [1.0, 2.0, 3.0, 4.0])
        np.testing.assert_array_equal(kelpa.from_mdanalysis(universe).radii, [1, 2, 3, 4])
        np.testing.assert_array_equal(kelpa.from_mdanalysis(universe, radius="ids").radii[:2], [11, 12])
        with self.assertRaisesRegex(ValueError, "radius: no column 'masses' in the group.* charges"):
            kelpa.from_mdanalysis(universe, radius="masses")


class DataFrames(unittest.TestCase):
    columns = {
        "x": [0, 2, 4], "y": [0.0, 1.0, 0.0], "z": [0, 0, 0], "size": [0.5, 0.25, 0.125],
        "r": [255, 0, 1], "g": [0, 128, 2], "b": [0, 0, 3], "what": ["Fe", "?", "H"],
        "vx": [1.0, 2.0, 3.0], "vy": [0.0, 0.0, 0.0], "vz": [0.0, 0.0, 0.0], "number": [7, 8, 9],
    }

    def test_name_their_columns(self):
        arrays = {name: np.array(values) for name, values in self.columns.items()}
        frames = [self.columns, arrays]
        try:
            frames.append(imported("pandas").DataFrame(self.columns))
        except unittest.SkipTest:
            pass
        for frame in frames:
            sized = kelpa.from_dataframe(
                frame, radius="size", colors=("r", "g", "b"), id="number", motion="velocity", dt=2
            )
            np.testing.assert_array_equal(sized.positions, [[0, 0, 0], [2, 1, 0], [4, 0, 0]])
            np.testing.assert_array_equal(sized.positions1[:, 0], [1, 4, 7])
            np.testing.assert_array_equal(sized.radii, F([0.5, 0.25, 0.125]))
            np.testing.assert_array_equal(sized.ids, [7, 8, 9])
            np.testing.assert_allclose(sized.colors[1], [0, 0.2159, 0], atol=1e-4)
            self.assertEqual(set(sized.columns), set(self.columns) - {"what"})
            swapped = kelpa.from_dataframe(frame, ("z", "y", "x"), element="what", color="#f00")
            np.testing.assert_allclose(swapped.radii, [1.26, 1.70, 1.10])
            np.testing.assert_array_equal(swapped.colors, [[1, 0, 0]] * 3)
            np.testing.assert_array_equal(swapped.positions[2], [0, 0, 4])
        spaced = kelpa.from_dataframe(arrays)
        self.assertTrue((spaced.radii == spaced.radii[0]).all() and spaced.radii[0] > 0.5)
        self.assertIn("6th neighbour", spaced.notes[0])

    def test_may_have_gaps_which_are_counted(self):
        pandas = imported("pandas")
        frame = pandas.DataFrame({"x": [0.0, None, 2.0], "y": [0, 0, 0], "z": [0, 0, 0]})
        frame["size"] = pandas.array([1, 2, None], dtype="Int64")
        particles = kelpa.from_dataframe(frame, radius="size")
        with self.assertWarnsRegex(UserWarning, "2 of 3 particles left out"):
            kelpa.Primitive(particles)

    def test_that_lack_what_is_asked_for_are_refused_by_the_argument(self):
        read, frame = kelpa.from_dataframe, self.columns
        for call, words in (
            (lambda: read(frame, ("x", "y", "w")), "position: no column 'w' .*which has: x, y, z"),
            (lambda: read(frame, "xyz"), "position: expected the names of three columns"),
            (lambda: read(frame, ("x", "y", "what")), "column 'what': expected numbers"),
            (lambda: read(frame, radius="what"), "radius: "),
            (lambda: read(frame, radius=[1, 2]), r"radius: .*\(3,\).*\(2,\)"),
            (lambda: read(frame, radii="ionic"), "radii: .*ionic"),
            (lambda: read(frame, color_by="size", color="#fff"), "color: .*color_by"),
            (lambda: read(frame, range=(0, 1)), "range: .*color_by"),
            (lambda: read(frame, color_by="size", range=(1, 1)), "range: "),
            (lambda: read(frame, color="#12"), "color: .*#12"),
            (lambda: read(frame, motion="next"), "motion: .*next"),
            (lambda: read(frame, motion="velocity", velocity=("vx", "vy", "v")), "velocity: .*'v'"),
            (lambda: read(frame, motion="velocity", shutter=(1, 0)), "shutter: "),
            (lambda: read(frame, id="what"), "ids: "),
        ):
            with self.subTest(words), self.assertRaisesRegex(ValueError, words):
                call()

    def test_takes_its_looks_by_name_and_shows_them(self):
        self.assertIn("color_by", inspect.signature(kelpa.from_dataframe).parameters)
        with self.assertRaisesRegex(TypeError, "radus"):
            kelpa.from_dataframe(self.columns, radus=1)
        with self.assertRaisesRegex(ValueError, "colormap: .*color_by"):
            kelpa.from_dataframe(self.columns, colormap="magma")


if __name__ == "__main__":
    unittest.main()
