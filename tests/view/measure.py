"""How fast the page is: KELPA_COMMAND=build/release/tool/kelpa python3 measure.py FILE... [-- OPTIONS]

Turns each file's particles by the pointer for some seconds in a headless browser of 960 x 540 and
tells, per file: pictures shown a second, how wide they were rendered, milliseconds from a pointer's
move to its picture (median, 95th percentile), milliseconds that a new camera waited for the work
before it to end, likewise, while that was refining, and memory.
"""

import os
import statistics
import sys
import time

import browser
import served

WATCH = """(() => {
    window.seen = { drawn: [], moves: new Map(), pending: null };
    const { send } = WebSocket.prototype;
    WebSocket.prototype.send = function (text) {
        const { camera } = JSON.parse(text);
        if (camera) {
            seen.moves.set(camera.number, seen.pending ?? performance.now());
            seen.pending = null;
        }
        send.call(this, text);
    };
    new MutationObserver(() => {
        const facts = JSON.parse(document.body.dataset.picture);
        const moved = seen.moves.get(facts.camera);
        if (moved !== undefined)
            seen.drawn.push({ time: performance.now(), moved, ...facts });
    }).observe(document.body, { attributes: true, attributeFilter: ['data-picture'] });
})()"""

TURN = """new Promise((done) => {
    const canvas = document.getElementById('picture');
    const fire = (type, x, y) => canvas.dispatchEvent(new PointerEvent(type, {
        pointerId: 1, button: 0, buttons: 1, clientX: x, clientY: y, bubbles: true }));
    canvas.setPointerCapture = () => {};
    fire('pointerdown', 480, 270);
    const begin = performance.now();
    const step = (now) => {
        const t = (now - begin) / 1000;
        seen.pending ??= performance.now();
        fire('pointermove', 480 + 150 * Math.sin(t) + 40 * t, 270 + 20 * Math.sin(2 * t));
        if (t < %f) {
            requestAnimationFrame(step);
        } else {
            fire('pointerup', 480, 270);
            done(performance.now() - begin);
        }
    };
    requestAnimationFrame(step);
})"""


def quantiles(values):
    values = sorted(values)
    return f"{statistics.median(values):.0f} / {values[int(0.95 * (len(values) - 1))]:.0f}"


def resident(process):
    with open(f"/proc/{process}/status", encoding="ascii") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmRSS")) / 1024


def children_of(process):
    with open(f"/proc/{process}/task/{process}/children", encoding="ascii") as file:
        direct = file.read().split()
    return [process, *(each for child in direct for each in children_of(int(child)))]


def shared_out(processes):
    """Memory of processes in MB, what they share counted once."""
    total = 0
    for process in processes:
        try:
            with open(f"/proc/{process}/smaps_rollup", encoding="ascii") as file:
                total += next(int(line.split()[1]) for line in file if line.startswith("Pss:"))
        except OSError:  # it has ended
            pass
    return total / 1024


def turning(tab, seconds):
    """Turns and gives what was drawn of it."""
    tab.run("seen.drawn = []")
    took = tab.run(TURN % seconds)
    drawn = [one for one in tab.run("seen.drawn") if one["samples"] == 0]
    late = [one["time"] - one["moved"] for one in drawn]
    return (f"{1000 * len(drawn) / took:.1f}", f"{statistics.median(one['width'] for one in drawn):.0f}",
            quantiles(late))


def waiting(tab, tries=30):
    """What a camera waited for the refining that it ended, in milliseconds."""
    waited = []
    for number in range(tries):
        last = (tab.facts() or {"number": 0})["number"]
        tab.key("ArrowLeft" if number % 2 else "ArrowRight")
        tab.wait(f"(() => {{ const p = JSON.parse(document.body.dataset.picture); "
                 f"return p.number > {last} && p.samples > 0; }})()", 60)
        time.sleep(0.05 + 0.037 * (number % 7))  # somewhere within it
    waited = [one["waited"] for one in tab.run("seen.drawn") if one["samples"] == 0]
    return quantiles(waited)


def measure(path, options, chromium, seconds=6.0):
    with served.Served(os.path.abspath(path), *options, "-q", folder=".") as server:
        tab = chromium.open(server.link, 960, 540)
        tab.wait("JSON.parse(document.body.dataset.picture ?? '{}').samples > 0", 300)
        tab.run(WATCH)
        turning(tab, 1.5)  # until the pictures' size is found
        shown = turning(tab, seconds)
        tab.run("seen.drawn = []")
        waited = waiting(tab)
        count = tab.run("document.getElementById('facts').textContent").split()[0]
        memory = f"{resident(server.process.pid):.0f}"
        page = f"{shared_out(children_of(chromium.process.pid)):.0f}"
        tab.close()
    return [os.path.basename(path), count, *shown, waited, memory, page]


def main():
    words = sys.argv[1:]
    options = words[words.index("--") + 1:] if "--" in words else []
    files = words[:words.index("--")] if "--" in words else words
    print("| file | particles | pictures/s | width | move to picture, ms | wait for old work, ms | "
          "server, MB | browser, MB |\n|---|---|---|---|---|---|---|---|")
    with browser.Browser(browser.find()) as chromium:
        for path in files:
            print("| " + " | ".join(measure(path, options, chromium)) + " |", flush=True)


if __name__ == "__main__":
    main()
