// Frames: one chosen, or one after the other.

const at = (id) => document.getElementById(id);
const fastest = 1000 / 12; // milliseconds from frame to frame

export class Film {
  /// `ask(fields)` tells the server what to show; `before()` is called before it changes; `state()`
  /// gives what the server told last.
  constructor(ask, before, state) {
    Object.assign(this, { ask, before, state, playing: null });
  }

  show(index) {
    const state = this.state();
    if (!state || !(index >= 0 && index < state.frames.count))
      return;
    this.before();
    const ahead = this.playing ? (index + 1) % state.frames.count : null;
    this.ask({ frame: index, ahead });
  }

  next() {
    const { index, count } = this.state().frames;
    this.show((index + 1) % count);
  }

  step(count) {
    this.stop();
    this.show((this.state()?.frames.index ?? 0) + count);
  }

  toggle() {
    if (this.playing) {
      this.stop();
    } else if (this.state()?.frames.count > 1) {
      this.playing = { since: performance.now() };
      at('play').setAttribute('aria-pressed', 'true');
      this.next();
    }
  }

  stop() {
    if (!this.playing)
      return;
    clearTimeout(this.playing.timer);
    this.playing = null;
    at('play').setAttribute('aria-pressed', 'false');
    this.ask({ ahead: null });
  }

  /// Once a frame's first picture is there, the next frame comes.
  goOn(facts) {
    const { playing } = this;
    if (!playing || playing.version === facts.version || facts.version !== this.state()?.version)
      return;
    playing.version = facts.version;
    playing.timer = setTimeout(() => {
      playing.since = performance.now();
      this.next();
    }, Math.max(0, fastest - (performance.now() - playing.since)));
  }
}
