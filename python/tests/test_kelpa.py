"""Primitives, rays, cameras and pictures of arrays."""

import copy
import gc
import itertools
import multiprocessing
import os
import pathlib
import signal
import tempfile
import threading
import time
import unittest
import weakref

import numpy as np

import kelpa
from judge import closest_hits

F = np.float32


def cloud(seed, count, kind="sphere", moving=False, **options):
    rng = np.random.default_rng(seed)
    positions = rng.random((count, 3), dtype=F)
    radii = (0.02 + 0.06 * rng.random(count)).astype(F)
    if moving:
        options["positions1"] = positions + rng.normal(0, 0.2, (count, 3)).astype(F)
        options["radii1"] = (radii * rng.uniform(0.5, 1.5, count)).astype(F)
    return kelpa.Particles(positions, radii, type=kind, **options)


def rays_through(systems, bases, seed, count):
    """Rays from outside and inside, a third of them from a particle's surface, which they skip."""
    rng = np.random.default_rng(seed)
    origins = rng.uniform(-0.5, 1.5, (count, 3)).astype(F)
    directions = rng.normal(0, 1, (count, 3)).astype(F)
    skip = np.full(count, -1, dtype=np.int64)
    for i in range(0, count, 3):
        k = rng.integers(len(systems))
        j = rng.integers(len(systems[k]))
        away = directions[i] / np.linalg.norm(directions[i])
        origins[i] = systems[k].positions[j] - systems[k].radii[j] * away
        skip[i] = bases[k] + j
    tmin = rng.choice([0.0, 0.1, -1.0], count)
    tmax = rng.choice([np.inf, 0.7, 1e30], count)
    times = rng.uniform(0.01, 0.99, count).astype(F)
    return dict(origins=origins, directions=directions, tmin=tmin, tmax=tmax, time=times, skip=skip)


def slow_primitive(count=20000):
    """One leaf that holds everything: every ray asks every sphere."""
    return kelpa.Primitive(cloud(1, count), max_depth=1, pack=False)


def many_rays(count=2_000_000):
    directions = np.tile(F([1, 0.5, 0.3]), (count, 1))
    return dict(origins=[-1, 0, 0], directions=directions)


class Hits(unittest.TestCase):
    def test_are_those_of_asking_every_particle(self):
        scenes = {
            "spheres": [cloud(1, 300)],
            "points with a base": [cloud(2, 300, "point", base_index=1000)],
            "moving spheres": [cloud(3, 300, moving=True, base_index=7)],
            "moving points": [cloud(4, 300, "point", moving=True)],
            "still spheres and points": [cloud(5, 200), cloud(6, 0), cloud(7, 200, "point")],
            "moving systems of their own times": [
                cloud(8, 200, moving=True, base_index=5000),
                cloud(9, 150, "point", moving=True, base_index=0, times=(0.25, 0.75)),
            ],
        }
        for (name, systems), pack in itertools.product(scenes.items(), (True, False)):
            primitive = kelpa.Primitive(systems, pack=pack)
            rays = rays_through(systems[::2], primitive.bases[::2], 11, 1500)
            t, indices = closest_hits(systems, primitive.bases, **rays)
            self.assertGreater(np.isfinite(t).mean(), 0.3, "the rays of this test hit too little")
            for lists in (True, False):
                with self.subTest(name, pack=pack, lists=lists):
                    hits = primitive.intersect(**rays, lists=lists, threads=2)
                    np.testing.assert_array_equal(hits.t, t)
                    np.testing.assert_array_equal(hits.mask, np.isfinite(t))
                    np.testing.assert_array_equal(hits.index == -1, ~hits.mask)
                    for i in np.flatnonzero(hits.mask):
                        self.assertIn(hits.index[i], indices[i])
                    of = primitive.system_of(hits.index)
                    kinds = [1 if s.type == "sphere" else 2 for s in systems] + [0]
                    np.testing.assert_array_equal(hits.type, np.array(kinds)[of])
                    against = np.sum(hits.normal * rays["directions"], axis=1)[hits.type == 2]
                    self.assertTrue((against < 0).all())

    def test_normals_point_from_the_centre_to_the_hit(self):
        hits = kelpa.build([[0, 0, 5]], 2).intersect([0, 1, 0], [[0, 0, 2], [0, 1, 0]])
        np.testing.assert_allclose(hits.normal, [[0, 1, -np.sqrt(3)], [0, 0, 0]], rtol=1e-6)
        np.testing.assert_allclose(hits.t, [(5 - np.sqrt(3)) / 2, np.inf], rtol=1e-6)
        np.testing.assert_allclose(np.linalg.norm(hits.unit_normals(), axis=1), [1, 0], rtol=1e-6)

    def test_have_the_shape_of_the_rays(self):
        primitive = kelpa.build(np.random.default_rng(1).random((50, 3)), 0.2)
        origins = np.zeros((4, 7, 3))
        for arguments in (
            (origins, [1, 1, 1]), ([0, 0, 0], origins + 1), (origins[::-1], origins[::-1] + 1),
            (np.asfortranarray(origins), np.ones((4, 7, 3), dtype=np.int16)),
        ):
            hits = primitive.intersect(*arguments, time=np.zeros((4, 7)))
            self.assertEqual((hits.t.shape, hits.normal.shape), ((4, 7), (4, 7, 3)))
            self.assertEqual(len(np.unique(hits.t)), 1)
        self.assertEqual(primitive.intersect([0, 0, 0], [1, 1, 1]).t.shape, (1,))
        self.assertEqual(primitive.intersect(np.empty((0, 3)), [1, 1, 1]).t.shape, (0,))

    def test_skip_nothing_by_numbers_that_no_particle_has(self):
        primitive = kelpa.build([[0, 0, 5]], 1)
        for skip in (-1, 1, -(2**32), 2**32, 2**40):
            self.assertEqual(primitive.intersect([0, 0, 0], [0, 0, 1], skip=skip).t[0], 4)
        self.assertEqual(primitive.intersect([0, 0, 0], [0, 0, 1], skip=0).t[0], 6)

    def test_are_found_after_a_fork(self):
        primitive = kelpa.Primitive(cloud(1, 1000))
        rays = rays_through(primitive.systems, primitive.bases, 2, 5000)
        here = primitive.intersect(**rays)
        context = multiprocessing.get_context("fork")
        answers = context.Queue()
        child = context.Process(target=lambda: answers.put(primitive.intersect(**rays).t))
        child.start()
        np.testing.assert_array_equal(answers.get(timeout=60), here.t)
        child.join()


class Particles(unittest.TestCase):
    def test_stay_where_they_are_and_live_as_long_as_the_primitive(self):
        positions = np.random.default_rng(1).random((1000, 3), dtype=F)
        radii = np.full(1000, 0.1, dtype=F)
        positions1 = positions + F(0.1)
        particles = kelpa.Particles(positions, radii, positions1=positions1)
        self.assertTrue(np.shares_memory(particles.positions, positions))
        self.assertTrue(np.shares_memory(particles.radii1, radii))
        primitive = kelpa.Primitive(particles, pack=False)
        before = primitive.intersect([0, 0, 0], [[1, 1, 1]])
        alive = [weakref.ref(a) for a in (positions, radii, positions1)]
        del positions, radii, positions1, particles
        gc.collect()
        np.empty((1000, 3), dtype=F).fill(np.nan)  # would reuse what had been freed
        self.assertTrue(all(ref() is not None for ref in alive))
        self.assertEqual(primitive.intersect([0, 0, 0], [[1, 1, 1]]).t, before.t)
        del primitive
        gc.collect()
        self.assertFalse(any(ref() is not None for ref in alive))

    def test_of_other_types_and_orders_are_the_same_particles(self):
        positions = np.random.default_rng(1).integers(0, 50, (500, 3)).astype(F)
        expected = kelpa.build(positions, 1).intersect([-5, -5, -5], positions + 6)
        for other in (
            positions.astype(float), np.asfortranarray(positions), positions.astype(">f4"),
            positions.astype(np.int64), positions.tolist(), np.repeat(positions, 2, axis=0)[::2],
        ):
            radii = np.ones(1000)[::2]
            hits = kelpa.build(other, radii).intersect([-5, -5, -5], positions + 6)
            np.testing.assert_array_equal(hits.t, expected.t)

    def test_that_cannot_be_hit_are_left_out_and_told(self):
        positions = F([[0, 0, 5], [np.nan, 0, 1], [0, 0, 2], [0, 0, 3]])
        words = r"3 of 4 particles left out \(1 not finite, 2 with radius 0 or less\)"
        with self.assertWarnsRegex(UserWarning, words) as warned:
            primitive = kelpa.build(positions, [1, 1, 0, -1])
        self.assertEqual(warned.filename, __file__)
        found = primitive.statistics
        self.assertEqual((found["particles"], found["used"], found["left_out"]), (4, 1, 3))
        self.assertEqual(primitive.intersect([0, 0, 0], [0, 0, 1]).index[0], 0)
        np.testing.assert_allclose(primitive.bounds, [[-1, -1, 4], [1, 1, 6]], atol=2e-3)
        self.assertGreater(primitive.memory, 0)
        self.assertGreater(primitive.statistics["peak_bytes"], primitive.memory)
        for empty in (kelpa.Primitive([]), kelpa.build(np.empty((0, 3)), 1)):
            self.assertIsNone(empty.bounds)
            self.assertFalse(empty.intersect([0, 0, 0], [0, 0, 1]).mask.any())
            self.assertFalse(empty.render(width=9, height=3).any())

    def test_have_colours_of_any_usual_type(self):
        codes = np.array([[255, 188, 0], [1, 128, 255]])
        expected = kelpa.Particles(np.zeros((2, 3)), 1, colors=codes.astype(np.uint8)).colors
        np.testing.assert_allclose(expected[0], [1, 0.5029, 0], atol=1e-4)
        for other in (codes, codes.astype(np.uint16), codes.tolist()):
            colors = kelpa.Particles(np.zeros((2, 3)), 1, colors=other).colors
            np.testing.assert_array_equal(colors, expected)
        light = kelpa.Particles(np.zeros((2, 3)), 1, colors=[[1, 0, 0], [0, 1, 0]]).colors
        np.testing.assert_array_equal(light, [[1, 0, 0], [0, 1, 0]])
        with self.assertWarnsRegex(UserWarning, "1 of 2 colors are not within 0 to 1.*uint8"):
            kelpa.Particles(np.zeros((2, 3)), 1, colors=[[255.0, 0, 0], [0, 0.5, 1]])

    def test_and_all_that_is_plain_data_can_be_copied_and_sent(self):
        particles = cloud(1, 20, "point", moving=True, base_index=5, times=(0.25, 0.5))
        hits = kelpa.Primitive(particles).intersect([-1, -1, -1], particles.positions + 1)
        camera = kelpa.Camera((1, 2, 3), parallel_height=2)
        with multiprocessing.get_context("spawn").Pool(1) as pool:
            sent = pool.map(copy.copy, [particles, hits, camera])
        for copies in (
            sent, [copy.copy(x) for x in (particles, hits, camera)],
            copy.deepcopy([particles, hits, camera]),
        ):
            for name in kelpa.Particles.__slots__:
                found, expected = getattr(copies[0], name), getattr(particles, name)
                np.testing.assert_array_equal(found, expected, name)
            np.testing.assert_array_equal(copies[1].index, hits.index)
            self.assertEqual(copies[2], camera)
        with self.assertRaisesRegex(TypeError, "systems"):
            copy.copy(kelpa.Primitive(particles))

    def test_and_rays_that_make_no_sense_are_refused_by_name_and_shape(self):
        p = np.zeros((10, 3), dtype=F)
        still, moving = kelpa.Particles(p, 1), kelpa.Particles(p, 1, positions1=p)
        masked = np.ma.array(p)
        masked[0] = np.ma.masked
        ask = kelpa.Primitive(still).intersect
        draw = kelpa.Primitive(still).render
        for call, words in (
            (lambda: kelpa.Particles(p[:, :2], 1), "positions: .*N, 3.*10, 2"),
            (lambda: kelpa.Particles([[1, 2, 3], [4, 5]], 1), "positions: .*N, 3"),
            (lambda: kelpa.Particles(p.astype(complex), 1), "positions: .*float32.*complex128"),
            (lambda: kelpa.Particles(p, np.ones(9)), r"radii: .*\(10,\).*\(9,\)"),
            (lambda: kelpa.Particles(p, "big"), "radii: "),
            (lambda: kelpa.Particles(masked, 1), "positions: 3 values are masked"),
            (lambda: kelpa.Particles(p, masked[:, 0]), "radii: 1 values are masked"),
            (lambda: kelpa.Particles(p, 1, colors=p.astype(int) - 300), "colors: .*-300"),
            (lambda: kelpa.Particles(p, 1, colors=p.astype(int) + 300), "colors: .*300"),
            (lambda: kelpa.Particles(p, 1, colors=p[:5]), r"colors: .*10, 3.*5, 3"),
            (lambda: kelpa.Particles(p, 1, positions1=p[1:]), r"positions1: .*10, 3.*9, 3"),
            (lambda: kelpa.Particles(p, 1, radii1=2), "radii1: .*positions1"),
            (lambda: kelpa.Particles(p, 1, positions1=p, times=(0.5, 0.5)), "times: .*0.5"),
            (lambda: kelpa.Particles(p, 1, times=(0, 0.5, 1)), "times: "),
            (lambda: kelpa.Particles(p, 1, base_index=-1), "base_index: .*-1"),
            (lambda: kelpa.Particles(p, 1, base_index=2**31 - 5), "base_index: "),
            (lambda: kelpa.Particles(p, 1, type="cube"), "type: .*cube"),
            (lambda: kelpa.Primitive([still, moving]), "all still or all moving"),
            (lambda: kelpa.Primitive([still, kelpa.Particles(p, 1, base_index=9)]), "overlap"),
            (lambda: kelpa.Primitive(still, max_depth=0), "max_depth: .*0"),
            (lambda: kelpa.Primitive(still, min_node_size=float("nan")), "min_node_size: .*nan"),
            (lambda: kelpa.Primitive(still, threads=-2), "threads: .*-2"),
            (lambda: ask(np.zeros((5, 2)), p), r"origins: .*3.*\(5, 2\)"),
            (lambda: ask(np.zeros((5, 3)), p), r"directions: .*5, 3.*10, 3"),
            (lambda: ask(p, p, tmin=np.zeros(4)), r"tmin: .*\(10,\).*\(4,\)"),
            (lambda: ask(p, p, tmax=np.zeros((10, 1))), r"tmax: .*\(10,\).*\(10, 1\)"),
            (lambda: ask(p, p, tmax=masked[:, 0]), "tmax: 1 values are masked"),
            (lambda: ask([masked[0], p[0]], p[:2]), "origins: 3 values are masked"),
            (lambda: ask(p, p, tmin=np.nan), "tmin: 1 values are NaN"),
            (lambda: ask(p, p, tmax=[1.0] * 8 + [np.nan] * 2), "tmax: 2 values are NaN"),
            (lambda: ask(p, p, time="noon"), "time: "),
            (lambda: ask(p, p, skip=0.5), "skip: .*int64.*float64"),
            (lambda: draw(width=0), "width: .*0"),
            (lambda: draw(samples=2.5), "samples: .*2.5"),
            (lambda: draw(shade="oily"), "shade: .*oily"),
            (lambda: draw(shutter=(0, 2)), "shutter: .*2"),
            (lambda: draw(background=[1, 1]), "background: "),
            (lambda: kelpa.Camera((0, 0, 0)), "target"),
            (lambda: kelpa.Camera((1e9, 0, 0), (1e9 + 1, 0, 0)), "target"),
            (lambda: kelpa.Camera((0, 0, 1)), "up: "),
            (lambda: kelpa.Camera((1, 0, 0), fov=180), "fov: .*180"),
            (lambda: kelpa.to_srgb(p[:, :2]), "picture: .*10, 2"),
            (lambda: kelpa.build([[0, 0, 0], [3.4e38, 0, 0]], 1).render(), "primitive: .*farthest"),
        ):
            with self.subTest(words), self.assertRaisesRegex(ValueError, words):
                call()
        with self.assertRaisesRegex(TypeError, "particles: .*ndarray"):
            kelpa.Primitive([p])
        with self.assertRaisesRegex(TypeError, "camera: .*str"):
            draw(camera="front")
        with self.assertRaisesRegex(AttributeError, "radii"):
            still.radii = p


class Trees(unittest.TestCase):
    def test_beyond_memory_and_in_a_cache_give_the_same_hits(self):
        particles = cloud(1, 20000)
        origins = np.random.default_rng(1).uniform(-1, 2, (500, 3)).astype(F)
        in_memory = kelpa.Primitive(particles, block=500)
        self.assertNotIn("trees_read", in_memory.statistics)
        expected = in_memory.intersect(origins, 0.5 - origins)
        with tempfile.TemporaryDirectory() as folder:
            cache = pathlib.Path(folder) / "trees"
            for keep, check in (
                ({"memory": 200000}, lambda s: s["trees_written"] > 0 and s["trees_read"] > 0),
                ({"cache": cache}, lambda s: s["trees_written"] == s["trees"]),
                ({"cache": cache}, lambda s: s["trees_found"] == s["trees"]),
                ({"cache": str(cache), "memory": 1}, lambda s: s["trees_built"] == 0),
                ({"cache": cache / "of_one", "block": None}, lambda s: s["trees_written"] == 1),
            ):
                keep = {"block": 500, **keep}
                tree = kelpa.Primitive(particles, **keep)
                hits = tree.intersect(origins, 0.5 - origins)
                self.assertTrue(np.array_equal(hits.index, expected.index))
                self.assertTrue(np.array_equal(hits.t, expected.t, equal_nan=True))
                self.assertTrue(check(tree.statistics), (keep, tree.statistics))
            (cache / "block-000003.kelpa").write_bytes(b"no tree")
            with self.assertWarnsRegex(UserWarning, "block-000003.kelpa is cut short; built anew"):
                kelpa.Primitive(particles, block=500, cache=cache)
        for wrong in ({"memory": 0}, {"memory": 1.5}, {"cache": ""}, {"cache": 3}):
            with self.assertRaises((ValueError, TypeError)):
                kelpa.Primitive(particles, **wrong)
        with self.assertRaisesRegex(OSError, "is no folder for a cache"):
            kelpa.Primitive(particles, cache=__file__)


class LongWork(unittest.TestCase):
    """If nothing ended them, builds would take seconds, rays and pictures longer than tests may."""

    def setUp(self):
        previous = signal.signal(signal.SIGINT, signal.default_int_handler)
        self.addCleanup(signal.signal, signal.SIGINT, previous)
        positions = np.random.default_rng(1).random((1_000_000, 3), dtype=F)
        # Spheres that all overlap: the tree grows with every level.
        particles = kelpa.Particles(positions, 0.5, positions1=positions[::-1].copy())
        slow = slow_primitive(100_000)
        self.works = {
            "build": lambda **o: kelpa.Primitive(particles, leaf_size_factor=0.0, **o),
            "intersect": lambda **o: slow.intersect(**many_rays(), **o),
            "render": lambda **o: slow.render(samples=10000, **o),
        }

    def test_ends_with_ctrl_c(self):
        for (name, work), threads in itertools.product(self.works.items(), (0, 1)):
            with self.subTest(name, threads=threads):
                # Without `progress`, in which Python would look for signals by itself.
                stop = threading.Timer(0.1, os.kill, (os.getpid(), signal.SIGINT))
                stop.start()
                with self.assertRaises(KeyboardInterrupt):
                    work(threads=threads)
                stop.join()

    def test_ends_with_what_progress_raises_on_the_calling_thread(self):
        for name, work in self.works.items():
            with self.subTest(name):
                calls = []

                def progress(part, message):
                    calls.append((part, message, threading.get_ident()))
                    raise LookupError("enough")

                with self.assertRaisesRegex(LookupError, "enough"):
                    work(progress=progress)
                (part, message, thread), = calls
                self.assertEqual(thread, threading.get_ident())
                self.assertTrue(message and (part is None if name == "build" else 0 <= part < 1))

    def test_leaves_the_rest_of_a_build_undone(self):
        particles = cloud(1, 60_000)

        def stop_at_once(part, message):
            raise LookupError

        begin = time.process_time()
        with self.assertRaises(LookupError):
            kelpa.Primitive(particles, progress=stop_at_once)
        middle = time.process_time()
        kelpa.Primitive(particles)
        self.assertLess(middle - begin, (time.process_time() - middle) / 2)

    def test_lets_other_threads_of_python_run(self):
        slow = slow_primitive()
        ticks, ended = [], threading.Event()

        def tick():
            while not ended.wait(0.002):
                ticks.append(time.perf_counter())

        ticker = threading.Thread(target=tick)
        ticker.start()
        try:
            for work in (
                lambda: slow.intersect(**many_rays(20000)),
                lambda: slow.render(width=160, height=120, samples=1),
                lambda: kelpa.build(np.random.default_rng(1).random((300_000, 3), dtype=F), 0.01),
            ):
                begin = time.perf_counter()
                work()
                end = time.perf_counter()
                middle = [t for t in ticks if 0.25 < (t - begin) / (end - begin) < 0.75]
                self.assertGreater(len(middle), 2)
        finally:
            ended.set()
            ticker.join()


class Pictures(unittest.TestCase):
    def test_show_what_rays_hit_where_the_camera_sends_them(self):
        systems = [cloud(1, 40, colors=np.random.default_rng(2).random((40, 3)), base_index=90),
                   cloud(3, 30, "point", colors=np.full((30, 3), 255, dtype=np.uint8))]
        systems[1] = kelpa.Particles(systems[1].positions, systems[1].radii, type="point",
                                     colors=systems[1].colors, base_index=0)
        primitive = kelpa.Primitive(systems)
        framed = kelpa.Camera.framing(primitive, aspect=67 / 45)
        parallel = kelpa.Camera(framed.eye, framed.target, parallel_height=1.5)
        for camera in (framed, parallel):
            hits = primitive.intersect(*camera.rays(67, 45))
            flat = primitive.render(camera, 67, 45, samples=1, shade="flat", threads=1)
            np.testing.assert_array_equal(flat[..., 3], hits.mask.astype(F))
            colors = np.zeros((130, 3), dtype=F)
            colors[:30], colors[90:] = systems[1].colors, systems[0].colors
            expected = np.where(hits.mask[..., None], colors[hits.index], 0)
            np.testing.assert_array_equal(flat[..., :3], expected)
        smooth = [primitive.render(framed, 67, 45, samples=9, threads=n) for n in (1, 2)]
        np.testing.assert_array_equal(*smooth)
        alpha = smooth[0][..., 3]
        self.assertTrue(((alpha > 0.05) & (alpha < 0.95)).any())
        self.assertFalse(np.concatenate([alpha[0], alpha[-1], alpha[:, 0], alpha[:, -1]]).any())
        opaque = primitive.render(framed, 67, 45, background=(0, 0, 1))
        np.testing.assert_allclose(opaque[..., 3], 1, rtol=1e-6)
        np.testing.assert_allclose(opaque[0, 0, :3], (0, 0, 1), rtol=1e-6)

    def test_are_lit_from_the_eye_and_blurred_by_motion(self):
        ball = kelpa.build([[0, 0, 0]], 1)
        camera = kelpa.Camera((0, -10, 0), parallel_height=4)
        lit = ball.render(camera, 64, 64, color=(1, 1, 1))
        self.assertGreater(lit[32, 32, 0], 0.98)
        self.assertLess(lit[32, 32 + 15, 0], 0.6)
        axes = ball.render(camera, 64, 64, shade="normals")
        np.testing.assert_allclose(axes[32, 32, :3], (0.5, 0.5, 1), atol=0.03)
        self.assertTrue(axes[32, 44, 0] > 0.7 and axes[20, 32, 1] > 0.7)
        moving = kelpa.build([[-1, 0, 0]], 0.5, positions1=[[1, 0, 0]])
        blurred = moving.render(camera, 64, 64, samples=256)
        # The middle is covered while the ball, 1 wide, passes: half of a way of 2.
        self.assertAlmostEqual(blurred[32, 32, 3], 0.5, delta=0.06)
        early = moving.render(camera, 64, 64, shutter=(0.0, 0.2))
        self.assertTrue(early[32, 16:18, 3].any() and not early[32, 32:, 3].any())

    def test_become_bytes_as_files_want_them(self):
        image = F([[[0.5, 0.25, 0, 0.5], [0, 0, 0, 0], [2, 1, 0.0031308, 1]]])
        np.testing.assert_array_equal(
            kelpa.to_srgb(image), [[[255, 188, 0, 128], [0, 0, 0, 0], [255, 255, 10, 255]]]
        )


if __name__ == "__main__":
    unittest.main()
