"""Python's words beside the command's options: whoever adds one of them looks for the other."""

import inspect
import os
import re
import subprocess
import unittest

import kelpa

COMMAND = os.environ.get("KELPA_COMMAND")

# Options that Python says otherwise, or that mean nothing there.
ONLY_OF_THE_COMMAND = {
    "help", "help_all", "quiet", "verbose", "strict", "stats",  # of a command line
    "output", "save_camera",  # Picture.save, Camera.save
    "together", "frames",  # a list of paths, kelpa.frames
    "size", "look_at",  # width and height, Camera's target
    "turntable", "plan", "use", "resume", "fps",  # of films, which are loops in Python
    "reproducible",  # pictures always are
    "bounds",  # moving_bounds
    "colorbar",
}
# Words for what options say otherwise, or for what is not of a picture.
ONLY_OF_PYTHON = {
    "path", "columns",  # what is read and kept
    "particles", "pack", "moving_bounds",  # how trees are built
    "primitive", "direction", "target", "aspect", "parallel_height",  # of Camera
    "width", "height",
}


def words_of(*calls):
    """The names of all parameters."""
    return {name for call in calls for name in inspect.signature(call).parameters} - {"self"}


@unittest.skipUnless(COMMAND, "needs the command, whose path is in KELPA_COMMAND")
class Words(unittest.TestCase):
    def test_are_those_of_the_command(self):
        told = subprocess.run(
            [COMMAND, "render", "--help-all"], check=True, capture_output=True, text=True
        ).stdout
        options = {
            name.replace("-", "_") for name in re.findall(r"^ +(?:-\w, ?)?--([a-z-]+)", told, re.M)
        }
        words = words_of(
            kelpa.read, kelpa.Primitive.__init__, kelpa.Primitive.render, kelpa.Camera.framing,
            kelpa.Camera, kelpa.Picture.save,
        )
        self.assertGreater(len(options), 60)
        self.assertEqual(options - words, ONLY_OF_THE_COMMAND)
        self.assertEqual(words - options, ONLY_OF_PYTHON)


if __name__ == "__main__":
    unittest.main()
