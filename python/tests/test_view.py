"""Pages in the browser, served from within Python."""

import gc
import os
import shlex
import subprocess
import sys
import unittest
import unittest.mock
import urllib.error
import urllib.request
from pathlib import Path

import numpy as np

import kelpa
from test_files import WithFolder, by_command

os.environ.setdefault("KELPA_COMMAND", "")
sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tests" / "view"))
from served import Line, pixels_of  # noqa: E402

HAS_VIEW = hasattr(kelpa._native, "View")


class Address:
    """Where a view is served, as `Line` wants it."""

    def __init__(self, link):
        _, _, host, self.token, _ = link.split("/")
        self.host, port = host.rsplit(":", 1)
        self.port = int(port)


def line_to(page):
    return Line(Address(page.link))


def is_there(link):
    try:
        return urllib.request.urlopen(link, timeout=20).status == 200
    except urllib.error.URLError:
        return False


@unittest.skipUnless(HAS_VIEW, "this build has no view")
class Views(WithFolder):
    def row_of_four(self, **more):
        positions = np.float32([[-3, 0, 0], [-1, 0, 0], [1, 0, 0], [3, 0, 0]])
        return kelpa.Particles(positions, 0.9, ids=[40, 41, 42, 43], columns={
            "heat": np.float64([0, 0.1, 4, 9]), "site": np.array(["top", "side", "top", "side"]),
            "way": positions}, **more)

    def test_of_files_make_the_commands_pixels_and_tell_the_command(self):
        words = dict(radii={"O": 1.5}, slice="x:3.2", select="z > -9", color_by="charge", radius_scale=0.8)
        with kelpa.view(self.water, frame=1, size=(64, 48), samples=2, background="black", **words) as page:
            with line_to(page) as line:
                seen = line.refined()[1]
                line.send({"command": True})
                told = shlex.split(line.text("command"))
                by_command(*told[1:-1], self.folder / "told.png")
                self.assertEqual(pixels_of(seen), pixels_of(str(self.folder / "told.png")), told)
                self.assertEqual(told[told.index("--frame") + 1], "1")
                line.send({"scene": {"frame": 3}})
                line.until(lambda m, p: p is None and m.get("state", {}).get("shown", {}).get("frame") == 3)

    def test_of_primitives_show_their_own_tree_and_parts_of_it(self):
        moving = dict(positions1=np.float32([[-3, 0, 0.4], [-1, 0, 0.4], [1, 0, 0.4], [3, 0, 0.4]]))
        far = np.float32([2e6, 0, 0])  # where single precision needs another origin
        for particles, title in (([self.row_of_four()], "still"), ([self.row_of_four(**moving)], "moving"),
                                 ([self.row_of_four(), kelpa.Particles(far[None] * 0 + 9, 1, type="point")], "mixed")):
            with self.subTest(title):
                tree = kelpa.Primitive(particles, block=3 if title == "moving" else None)
                camera = kelpa.Camera.framing(tree, view="front", aspect=(60, 40))
                expected = tree.render(camera, 60, 40, shade="ao", samples=3, background="sky")
                expected.save(self.folder / "tree.png")
                with kelpa.view(tree, size=(60, 40), samples=3, camera=camera, title=title) as page:
                    self.ask(page, pixels_of(str(self.folder / "tree.png")), title)

    def ask(self, page, pixels, title):
        with line_to(page) as line:
            def shown_with(used):
                return line.until(lambda m, p: p is None and m.get("state", {}).get("shown", {})
                                  .get("used") == used)[0]["state"]["shown"]

            count = 5 if title == "mixed" else 4
            shown = shown_with(count)
            self.assertEqual((shown["file"], shown["columns"]), (title, ["heat", "site", "way"]))
            self.assertEqual(pixels_of(line.refined()[1]), pixels)
            line.send({"scene": {"colorBy": "heat", "cut": {"normal": [1, 0, 0], "at": 2}}})
            shown = shown_with(3)
            self.assertEqual(shown["bar"]["column"], "heat")
            line.send({"scene": {"radiusScale": 2}, "camera": {
                "number": 1, "fov": 30, "eye": [1, -9, 0.1], "at": [1, 0, 0.1], "up": [0, 0, 1]}})
            line.until(lambda m, p: p is None and m.get("state", {}).get("chosen", {}).get("radiusScale") == 2 and
                       m["state"]["version"] > 2)
            line.send({"pick": {"number": 1, "x": 0.5, "y": 0.5, "row": True}})
            picked = line.text("picked")
            self.assertEqual((picked["id"], picked["radius"]), ("42", np.float32(0.9) * 2))
            self.assertEqual(dict(line.text("row")["cells"])["heat"], "4.0")
            line.send({"scene": {"colorBy": "site", "cut": None}})
            self.assertNotIn("bar", shown_with(count), "names have no range")

    def test_end_with_the_object_and_stand_in_notebooks(self):
        page = kelpa.view(self.row_of_four()).wait()
        link = page.link
        self.assertTrue(is_there(link))
        self.assertIn(link, str(page))
        self.assertIn(f'<iframe src="{link}"', page._repr_html_())
        page.close()
        page.close()
        self.assertTrue(page.closed)
        self.assertFalse(is_there(link))
        self.assertNotIn("iframe", page._repr_html_())
        page = kelpa.view(self.row_of_four())
        link = page.link
        del page
        gc.collect()
        self.assertFalse(is_there(link), "nobody holds it")
        # In the middle of the view's own question, by its own thread.
        held = [self.row_of_four()]
        asked = []
        find = kelpa.view.__globals__["_column"]

        def column(systems, name):
            asked.append(pages.clear())
            return find(systems, name)

        with unittest.mock.patch.dict(kelpa.view.__globals__, {"_column": column}):
            pages = [kelpa.view(held[0])]
            link = pages[0].link
            with line_to(pages[0]) as line:
                line.send({"scene": {"colorBy": "heat"}})
                with self.assertRaises((EOFError, OSError)):
                    while True:
                        line.receive()
            self.assertEqual((len(asked), is_there(link)), (1, False))
        # A page that somebody looks at, with hours of work, does not keep a program from its end.
        program = (f"import sys; sys.path[:0] = {[str(Path(__file__).parent)]!r}\n"
                   "import numpy as np, kelpa, test_view\n"
                   "rng = np.random.default_rng(1)\n"
                   "tree = kelpa.Primitive(kelpa.Particles(rng.random((20000, 3)), 0.01))\n"
                   "page = kelpa.view(tree, size=(800, 600), samples=4000, ao_samples=64)\n"
                   "line = test_view.line_to(page)\n"
                   "line.until(lambda m, p: p is not None)\n")
        subprocess.run([sys.executable, "-c", program], check=True, timeout=60)

    def test_refuse_what_they_cannot_show(self):
        with self.assertRaises(FileNotFoundError):
            kelpa.view(self.folder / "nothing.xyz")
        (self.folder / "bad.xyz").write_text("2\n\nH 0 0 0\nH 0 x 0\n")
        with kelpa.view(self.folder / "bad.xyz") as page:
            with self.assertRaisesRegex(kelpa.ReadError, "bad.xyz:4"):
                page.wait()
        with self.assertRaisesRegex(ValueError, "closed"):
            page.wait()
        cloud = self.row_of_four()
        for error, argument in ((ValueError, {"shade": "normals"}), (ValueError, {"samples": 0}),
                                (ValueError, {"background": "reed"}), (ValueError, {"color_by": "nothing"}),
                                (ValueError, {"port": 70000}), (TypeError, {"slice": "x"}),
                                (TypeError, {"camera": 3})):
            with self.assertRaisesRegex(error, next(iter(argument))):
                kelpa.view(cloud, **argument)
        with self.assertRaisesRegex(TypeError, "spam"):
            kelpa.view(self.water, spam=1)
        with kelpa.view(cloud) as page:
            with self.assertRaisesRegex(OSError, "cannot listen"):
                kelpa.view(cloud, port=Address(page.link).port)


if __name__ == "__main__":
    unittest.main()
