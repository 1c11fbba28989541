// Pointer, fingers and keys.

/// Distance in pixels up to which a press is a click, and time up to which two are one.
const still = 4;
const doubleTime = 350;

/// Turns what is done on the picture into calls of `act`: `turn(dx, dy)`, `pan(dx, dy)` and
/// `roll(angle)` in pixels of the page and radians, `zoom(place, factor)`, `click(place)`,
/// `doubleClick(place)`, `grab(place)`, `release()`.
export class PointerControls {
  constructor(picture, act) {
    this.picture = picture;
    this.act = act;
    this.pointers = new Map();
    this.moved = 0;
    this.lastClick = { time: 0, x: 0, y: 0 };
    const canvas = picture.canvas;
    canvas.addEventListener('pointerdown', (event) => this.down(event));
    canvas.addEventListener('pointermove', (event) => this.move(event));
    for (const name of ['pointerup', 'pointercancel', 'lostpointercapture'])
      canvas.addEventListener(name, (event) => this.up(event));
    canvas.addEventListener('wheel', (event) => this.wheel(event), { passive: false });
    canvas.addEventListener('contextmenu', (event) => event.preventDefault());
  }

  down(event) {
    this.picture.canvas.focus({ preventScroll: true });
    this.picture.canvas.setPointerCapture(event.pointerId);
    this.pointers.set(event.pointerId, { x: event.clientX, y: event.clientY });
    this.isPanning = event.button === 2 || event.button === 1 || event.shiftKey;
    if (this.pointers.size === 1) {
      this.moved = 0;
      this.act.grab(this.picture.placeOf(event.clientX, event.clientY));
    } else {
      this.moved = Infinity; // fingers do not click
    }
  }

  move(event) {
    const before = this.pointers.get(event.pointerId);
    if (!before)
      return;
    const now = { x: event.clientX, y: event.clientY };
    const [dx, dy] = [now.x - before.x, now.y - before.y];
    if (this.pointers.size === 1) {
      this.moved += Math.hypot(dx, dy);
      if (this.moved <= still)
        return; // as long as it may be a click, nothing turns
      this.isPanning ? this.act.pan(dx, dy) : this.act.turn(dx, dy);
    } else if (this.pointers.size === 2) {
      this.moveFingers(event.pointerId, before, now);
    }
    this.pointers.set(event.pointerId, now);
  }

  /// Two fingers move, pinch and turn the picture in its plane.
  moveFingers(id, before, now) {
    const other = [...this.pointers.entries()].find(([key]) => key !== id)[1];
    const span = (p) => ({ length: Math.hypot(p.x - other.x, p.y - other.y),
      angle: Math.atan2(p.y - other.y, p.x - other.x) });
    const [first, then] = [span(before), span(now)];
    this.act.pan((now.x - before.x) / 2, (now.y - before.y) / 2);
    const place = this.picture.placeOf((now.x + other.x) / 2, (now.y + other.y) / 2);
    if (place && first.length > 0 && then.length > 0)
      this.act.zoom(place, first.length / then.length);
    let angle = then.angle - first.angle;
    angle -= 2 * Math.PI * Math.round(angle / (2 * Math.PI));
    this.act.roll(angle);
  }

  up(event) {
    if (!this.pointers.delete(event.pointerId) || this.pointers.size > 0)
      return;
    this.act.release();
    if (event.type !== 'pointerup' || this.moved > still || event.button > 0)
      return;
    const place = this.picture.placeOf(event.clientX, event.clientY);
    if (!place)
      return;
    const last = this.lastClick;
    const isDouble = event.timeStamp - last.time < doubleTime &&
        Math.hypot(event.clientX - last.x, event.clientY - last.y) < 4 * still;
    this.lastClick = { time: isDouble ? 0 : event.timeStamp, x: event.clientX, y: event.clientY };
    isDouble ? this.act.doubleClick(place) : this.act.click(place);
  }

  wheel(event) {
    event.preventDefault();
    const lines = event.deltaMode === 1 ? 18 : event.deltaMode === 2 ? 400 : 1;
    const amount = Math.max(-240, Math.min(240, event.deltaY * lines));
    const place = this.picture.placeOf(event.clientX, event.clientY);
    if (place)
      this.act.zoom(place, Math.exp(amount * (event.ctrlKey ? 0.01 : 0.0015)));
  }
}

/// What keys do: [keys, how the list of keys shows them, what they do, name in `act`, argument].
const table = [
  [['ArrowLeft'], '← → ↑ ↓, drag', 'turn', 'turn', [-24, 0]],
  [['ArrowRight'], '', '', 'turn', [24, 0]],
  [['ArrowUp'], '', '', 'turn', [0, -24]],
  [['ArrowDown'], '', '', 'turn', [0, 24]],
  [['Shift+ArrowLeft'], 'Shift with these, right drag', 'move across', 'pan', [-24, 0]],
  [['Shift+ArrowRight'], '', '', 'pan', [24, 0]],
  [['Shift+ArrowUp'], '', '', 'pan', [0, -24]],
  [['Shift+ArrowDown'], '', '', 'pan', [0, 24]],
  [['+', '='], '+ −, wheel, pinch', 'nearer, farther', 'zoomMiddle', [0.85]],
  [['-'], '', '', 'zoomMiddle', [1 / 0.85]],
  [['['], '[ ]', 'turn the picture in its plane', 'roll', [0.1]],
  [[']'], '', '', 'roll', [-0.1]],
  [['1'], '1 to 6', 'front, back, left, right, top, bottom', 'view', ['front']],
  [['2'], '', '', 'view', ['back']],
  [['3'], '', '', 'view', ['left']],
  [['4'], '', '', 'view', ['right']],
  [['5'], '', '', 'view', ['top']],
  [['6'], '', '', 'view', ['bottom']],
  [['7'], '7', 'oblique view', 'view', ['iso']],
  [['0', 'r', 'Home'], '0', 'first view', 'reset', []],
  [['o'], 'o', 'parallel projection', 'toggleOrtho', []],
  [['t'], 't', 'turn freely, or level', 'toggleFree', []],
  [['x'], 'x y z', 'cut across; the other side; no cut', 'cut', ['x']],
  [['y'], '', '', 'cut', ['y']],
  [['z'], '', '', 'cut', ['z']],
  [['v'], 'v, Delete', 'cut across the line of sight, no cut', 'cutSight', []],
  [['Delete', 'Backspace'], '', '', 'cut', ['']],
  [['PageUp'], 'Page keys', 'move the cut', 'moveCut', [0.02]],
  [['PageDown'], '', '', 'moveCut', [-0.02]],
  [['Shift+PageUp'], 'Shift with these', 'a thicker slab, a thinner one', 'thickenCut', [0.02]],
  [['Shift+PageDown'], '', '', 'thickenCut', [-0.02]],
  [['Enter'], 'Enter, click', 'what is in the middle, or there', 'clickMiddle', []],
  [['l'], 'l, double click', 'look at it', 'lookAtPicked', []],
  [[' '], 'Space', 'play the frames', 'togglePlay', []],
  [[','], ', .', 'frame before, next frame', 'step', [-1]],
  [['.'], '', '', 'step', [1]],
  [['s'], 's, e', 'save PNG, EXR', 'save', ['png']],
  [['e'], '', '', 'save', ['exr']],
  [['c'], 'c', 'copy the command of this picture', 'copyCommand', []],
  [['k'], 'k', 'copy the link with this camera', 'copyLink', []],
  [['p'], 'p', 'colour, cut, light, saving', 'togglePanel', []],
  [['f'], 'f', 'full screen', 'toggleFull', []],
  [['?'], '?', 'these keys', 'help', []],
  [['Escape'], 'Esc', 'close what is open', 'escape', []],
];

/// Fills a table with what keys and pointer do.
export function showKeys(list) {
  for (const [, keys, does] of table.filter((row) => row[1])) {
    const row = list.insertRow();
    row.append(document.createElement('th'), document.createElement('td'));
    row.children[0].textContent = keys;
    row.children[1].textContent = does;
  }
}

export function listenToKeys(act) {
  const actions = new Map();
  for (const [keys, , , name, values] of table)
    for (const key of keys)
      actions.set(key, () => act[name](...values));
  addEventListener('keydown', (event) => {
    const isTyping = event.target.closest('input, select, textarea, dialog') !== null;
    const presses = event.target.closest('button') !== null && [' ', 'Enter'].includes(event.key);
    if (event.ctrlKey || event.metaKey || event.altKey || presses ||
        (isTyping && event.key !== 'Escape'))
      return;
    const moves = /^(Arrow|Page)/.test(event.key);
    const action = actions.get(event.shiftKey && moves ? `Shift+${event.key}` : event.key);
    if (!action)
      return;
    event.preventDefault();
    action();
  });
}
