"""The module as it is built where libraries for files lack."""

import unittest

import kelpa
import numpy as np


class Plain(unittest.TestCase):
    def setUp(self):
        self.cloud = kelpa.build(np.random.default_rng(1).random((500, 3)), 0.05)

    def test_asks_rays_and_makes_pictures(self):
        hits = self.cloud.intersect([0.5, 0.5, -1], [[0, 0, 1], [0, 0, -1]])
        self.assertEqual(list(hits.mask), [True, False])
        picture = self.cloud.render(width=32, height=24, samples=2, aov=("depth", "id"))
        self.assertEqual(picture[..., 3].max(), 1)
        blocks = kelpa.build(np.random.default_rng(1).random((500, 3)), 0.05, block=100)
        self.assertEqual(blocks.intersect([0.5, 0.5, -1], [0, 0, 1]).t, hits.t[0])

    def test_says_what_is_missing_for_files(self):
        picture = self.cloud.render(width=8, height=6, samples=1)
        says = f"this build of .* (without|lacks) {kelpa._native.missing}"
        self.assertTrue(kelpa._native.missing)
        for wanted in (lambda: kelpa.read("a.ply"), lambda: list(kelpa.frames("a.ply")),
                       lambda: kelpa.view(self.cloud), lambda: picture.save("a.png"), lambda: kelpa.join("a.png", ["b.png"]),
                       lambda: kelpa.build(np.zeros((1, 3)), 1, cache="here")):
            with self.assertRaisesRegex(Exception, says):
                wanted()


if __name__ == "__main__":
    unittest.main()
