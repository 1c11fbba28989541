"""The page in a real browser: it opens, turns, refines to the command's pixels, and answers."""

import os
import shlex
import sys
import time
import unittest

import browser
import served

if browser.find() is None:
    print("skipped: there is no chromium; scripts/test.sh --with-browser installs one")
    sys.exit(77)


class Page(served.TestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        with open(os.path.join(cls.folder, "row.xyz"), "w", encoding="utf-8") as file:
            for frame in range(3):
                file.write('3\nProperties=species:S:1:pos:R:3:id:I:1:heat<b>:R:1\n')
                for i, x in enumerate((-4, 0, 4)):
                    file.write(f"C {x} 0 {frame} {70 + i} {frame + i * 0.5}\n")
        cls.browser = browser.Browser(browser.find())
        cls.addClassCleanup(cls.browser.__exit__)

    def path(self, name):
        return os.path.join(self.folder, name)

    def assertShows(self, tab, pixels, what=None):
        self.assertTrue(tab.shows(lambda shown: shown == pixels), what)

    def assertShowsMore(self, tab, pixels, what=None):
        self.assertTrue(tab.shows(lambda shown: shown not in pixels), what)

    def test_turns_and_refines_to_the_commands_pixels(self):
        given = ["sample.ply", "--samples", "4", "--reproducible"]
        with self.serve(*given) as server:
            tab = self.browser.open(server.link, 400, 300)
            first = tab.wait_refined()
            served.run("render", *given, "--size", "400x300", "-o", "first.png", folder=self.folder)
            before = tab.pixels()
            self.assertTrue(before == served.pixels_of(self.path("first.png")))
            tab.drag(200, 150, 120, 40)
            second = tab.wait_refined(first["number"])
            self.assertShowsMore(tab, [before])
            self.assertIn("#eye=", tab.run("location.hash"))
            # The command that the page copies makes what it shows.
            tab.run("Object.defineProperty(navigator, 'clipboard', { value: { writeText: "
                    "(text) => { window.copied = text; return Promise.resolve(); } } })")
            tab.key("c")
            words = shlex.split(tab.wait("window.copied"))
            served.run(*words[1:], folder=self.folder)
            self.assertShows(tab, served.pixels_of(self.path(words[-1])), words)
            # The link shows the same in another tab, and without its camera the first picture.
            link = tab.run("location.href")
            other = self.browser.open(link, 400, 300)
            other.wait("JSON.parse(document.body.dataset.picture ?? '{}').camera > 0")
            other.wait_refined()
            self.assertShows(other, tab.pixels())
            other.close()
            tab.key("0")
            tab.wait_refined(second["number"])
            self.assertShows(tab, before)
            self.assertEqual(tab.errors(), [])
            tab.close()

    def test_obeys_wheel_keys_and_fields(self):
        with self.serve("sample.ply", "--samples", "2") as server:
            tab = self.browser.open(server.link, 400, 300)
            number = tab.wait_refined()["number"]
            seen = [tab.pixels()]

            def changed(what):
                nonlocal number
                number = tab.wait_refined(number)["number"]
                self.assertShowsMore(tab, seen, what)
                seen.append(tab.pixels())

            tab.call("Input.dispatchMouseEvent", type="mouseWheel", x=120, y=100, deltaX=0, deltaY=-200)
            changed("wheel")
            for key in ("ArrowLeft", "ArrowUp", "+", "1", "5", "6", "o", "]"):
                tab.key(key)
                changed(key)
            tab.drag(150, 150, 40, 10, button="right")
            changed("pan")
            for field, value in (("#colorby", "z"), ("#low", "0.1"), ("#radius", "2"), ("#shade", "lit"),
                                 ("#samples", "3"), ("#background", "black"), ("#colorby", "")):
                tab.choose(field, value)
                changed(field)
            self.assertEqual(tab.errors(), [])
            tab.close()

    def test_names_the_particle_that_is_clicked_and_shows_frames(self):
        with self.serve("row.xyz", "--samples", "2", "--view", "front") as server:
            tab = self.browser.open(server.link, 500, 400)
            number = tab.wait_refined()["number"]
            tab.wait("!document.getElementById('frames').hidden")
            tab.click(250, 200)
            tab.wait("document.getElementById('pickedid').textContent === 'Particle 71'")
            tab.wait("document.getElementById('cells').textContent.includes('heat<b>')")
            self.assertEqual(tab.run("getComputedStyle(document.querySelector('#ring circle')).visibility"), "visible")
            tab.click(20, 380)
            tab.wait("document.getElementById('picked').hidden")
            tab.key("Enter")
            tab.wait("document.getElementById('pickedid').textContent === 'Particle 71'")
            tab.key("Escape")
            before = tab.pixels()
            tab.choose("#slider", "2")
            tab.wait("document.getElementById('framenumber').textContent === '2 of 2'")
            tab.wait_refined(number)
            self.assertShowsMore(tab, [before], "it moves in z, and the camera stays")
            tab.key(" ")
            for index in (0, 1, 2):
                tab.wait(f"document.getElementById('slider').value === '{index}'")
            tab.key(" ")
            self.assertEqual(tab.run("document.querySelectorAll('b').length"), 0, "names are no markup")
            self.assertEqual(tab.errors(), [])
            tab.close()

    def test_cuts_by_fields_keys_and_touch_as_the_command_does(self):
        with self.serve("sample.ply", "--samples", "2", "--reproducible") as server:
            tab = self.browser.open(server.link, 400, 300)
            number = tab.wait_refined()["number"]
            whole = tab.pixels()
            tab.run("Object.defineProperty(navigator, 'clipboard', { value: { writeText: "
                    "(text) => { window.copied = text; return Promise.resolve(); } } })")

            def cut(slices):
                nonlocal number
                number = tab.wait_refined(number)["number"]
                tab.run("window.copied = null")
                tab.key("c")
                words = shlex.split(tab.wait("window.copied"))
                found = [word[8:].split(":")[0] for word in words if word.startswith("--slice")]
                self.assertEqual(["," if "," in way else way for way in found], slices)
                served.run(*words[1:], folder=self.folder)
                self.assertShows(tab, served.pixels_of(self.path(words[-1])), words)

            tab.key("x")
            self.assertNotEqual(tab.run("document.getElementById('plane').getAttribute('points')"), "")
            cut(["x"])
            tab.key("PageDown")
            cut(["x"])
            tab.key("x")
            cut(["-x"])
            tab.key("PageUp", modifiers=8)
            cut(["-x", "x"])
            tab.key("v")
            cut([",", ","])
            tab.choose("#cutslider", "0.1")
            cut([",", ","])
            tab.choose("#cutaxis", "z")
            cut(["z", "-z"])
            tab.choose("#cutthick", "")
            cut(["z"])
            tab.key("Delete")
            cut([])
            tab.key("0")
            number = tab.wait_refined(number)["number"]
            self.assertShows(tab, whole)
            tab.wait("document.getElementById('plane').getAttribute('points') === ''")
            self.assertEqual(tab.errors(), [])
            tab.close()

    def test_works_with_fingers_and_looks_at_what_is_tapped_twice(self):
        with self.serve("row.xyz", "--samples", "2", "--view", "front") as server:
            tab = self.browser.open(server.link, 390, 844, ratio=2.0, touch=True)
            number = tab.wait_refined()["number"]
            self.assertEqual(tab.facts()["width"], 780)

            def touch(kind, *points):
                tab.call("Input.dispatchTouchEvent", type=kind, touchPoints=[
                    {"x": x, "y": y, "id": i} for i, (x, y) in enumerate(points)])

            before = tab.pixels()
            touch("touchStart", (100, 400), (200, 400))
            for i in range(1, 6):
                touch("touchMove", (100 - 10 * i, 400), (200 + 10 * i, 400))
            touch("touchEnd")
            number = tab.wait_refined(number)["number"]
            self.assertShowsMore(tab, [before])
            tab.click(195, 422, 2)
            tab.wait("document.getElementById('pickedid').textContent === 'Particle 71'")
            number = tab.wait_refined(number)["number"]
            tab.press("#settings")
            tab.choose("#cutaxis", "x")
            number = tab.wait_refined(number)["number"]
            tab.run("document.getElementById('cutslider').scrollIntoView({ block: 'center' })")
            box = tab.run("document.getElementById('cutslider').getBoundingClientRect().toJSON()")
            touch("touchStart", (box["x"] + box["width"] / 2, box["y"] + box["height"] / 2))
            touch("touchMove", (box["x"] + box["width"] * 0.9, box["y"] + box["height"] / 2))
            touch("touchEnd")
            tab.wait("Number(document.getElementById('cutplace').value) > 2")
            tab.wait_refined(number)
            self.assertEqual(tab.errors(), [])
            tab.close()

    def test_ends_the_work_of_a_closed_tab_and_comes_back_to_a_new_server(self):
        with self.serve("sample.ply", "--samples", "4000", "--ao-samples", "64") as server:
            tab = self.browser.open(server.link, 800, 600)
            tab.wait("JSON.parse(document.body.dataset.picture ?? '{}').samples > 0")
            tab.close()
            time.sleep(1)
            before = server.cpu_seconds()
            time.sleep(1)
            self.assertLess(server.cpu_seconds() - before, 0.2)
            wrong = server.link.replace(server.token, "0" * 32)
            tab = self.browser.open(wrong, 400, 300)
            tab.wait("document.body.textContent.includes('token')")
            tab.close()
            tab = self.browser.open(server.link, 400, 300)
            tab.wait("document.body.dataset.picture")
        tab.wait("document.getElementById('error').textContent.includes('server is gone')")
        tab.close()


if __name__ == "__main__":
    unittest.main()
