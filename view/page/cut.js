// The plane that cuts the particles, or the slab: its fields, its outline, and what the server is
// told of it.
import { add, cross, dot, size, sub, times, unit } from './camera.js';

const at = (id) => document.getElementById(id);
const axes = { x: [1, 0, 0], y: [0, 1, 0], z: [0, 0, 1] };
const shortly = (value) => Number(value.toPrecision(5));
const isSame = (a, b) => JSON.stringify(a) === JSON.stringify(b);

/// A direction, where the plane lies along it, which side of it is left out, and how much is kept
/// behind it (null: all).
export class Cut {
  /// `page` has `send(cut)`, the facts of what is `shown()`, the `camera()`, and `before()`, which
  /// is called before the particles change.
  constructor(page) {
    this.page = page;
    this.cut = null; // { axis, direction, place, isFlipped, thickness }
    this.told = null; // to the server last, in its words
    this.isWaiting = false; // for the server to show it
    this.isDue = false;
    this.version = 0;
    this.listen();
  }

  // --- fields

  listen() {
    const number = (id) => (at(id).value !== '' && at(id).checkValidity() ? Number(at(id).value) : null);
    at('cutaxis').addEventListener('change', () => this.across(at('cutaxis').value));
    const normal = [...at('cutnormal').children];
    for (const field of normal)
      field.addEventListener('change', () => {
        const direction = normal.map((each) => Number(each.value));
        if (size(direction) > 0 && Number.isFinite(size(direction)))
          this.change({ direction: unit(direction) });
      });
    for (const [event, isLast] of [['input', false], ['change', true]]) {
      at('cutslider').addEventListener(event, () => {
        document.body.classList.toggle('cutting', !isLast); // see the picture meanwhile
        this.change({ place: this.rounded(number('cutslider')) }, isLast);
      });
      at('cutthickslider').addEventListener(event, () => {
        document.body.classList.toggle('cutting', !isLast);
        const { max } = at('cutthickslider');
        const thickness = number('cutthickslider');
        this.change({ thickness: thickness < Number(max) ? this.rounded(thickness) : null }, isLast);
      });
    }
    at('cutplace').addEventListener('change', () => {
      if (number('cutplace') !== null)
        this.change({ place: number('cutplace') });
    });
    at('cutthick').addEventListener('change', () => this.change({ thickness: number('cutthick') || null }));
    at('cutflip').addEventListener('click', () => this.flip());
    at('cutoff').addEventListener('click', () => this.across(''));
  }

  /// Cuts through the middle, across an axis, the line of sight or a direction; '' for no more.
  across(axis) {
    const camera = this.page.camera();
    const before = this.cut;
    if (!axis || !this.page.shown() || (axis === 'sight' && !camera)) {
      this.cut = null;
      this.tell(true);
      return;
    }
    const toEye = axis === 'sight' ? times(camera.forward, -1).map(shortly) : null;
    const direction = axes[axis] ?? (toEye ? unit(toEye) : before?.direction ?? axes.x);
    this.cut = { axis: axes[axis] ? axis : 'own', direction, place: 0, isFlipped: false,
      thickness: before?.thickness ?? null };
    const [low, high] = this.span();
    this.cut.place = this.rounded((low + high) / 2);
    this.tell(true);
  }

  /// The same by a key: across, then the other side, then no cut.
  cycle(axis) {
    if (this.cut?.axis !== axis)
      this.across(axis);
    else
      this.cut.isFlipped ? this.across('') : this.flip();
  }

  flip() {
    if (this.cut)
      this.change({ isFlipped: !this.cut.isFlipped });
  }

  /// Moves the plane by parts of what there is, towards what is left out.
  move(part) {
    if (!this.cut)
      return;
    const [low, high] = this.span();
    const step = part * (high - low) * (this.cut.isFlipped ? -1 : 1);
    this.change({ place: this.rounded(Math.max(low, Math.min(high, this.cut.place + step))) });
  }

  thicken(part) {
    if (!this.cut)
      return;
    const [low, high] = this.span();
    const whole = high - low;
    const thickness = Math.max((this.cut.thickness ?? 0.2 * whole) + part * whole, 0.01 * whole);
    this.change({ thickness: thickness < whole ? this.rounded(thickness) : null });
  }

  change(fields, isLast = true) {
    if (!this.cut)
      return;
    Object.assign(this.cut, fields);
    this.tell(isLast);
  }

  /// From where to where the particles reach along the direction.
  span() {
    const [low, high] = this.page.shown().extent;
    const { direction } = this.cut;
    const end = (isUpper) => direction.reduce((sum, part, i) =>
      sum + part * ((part > 0) === isUpper ? high[i] : low[i]), 0);
    return [end(false), end(true)];
  }

  /// A place or a thickness with no more digits than one sees.
  rounded(value) {
    const [low, high] = this.span();
    const step = 10 ** Math.floor(Math.log10((high - low) / 2000));
    return high > low ? Number((Math.round(value / step) * step).toPrecision(12)) : value;
  }

  showFields() {
    const { cut } = this;
    at('cutaxis').value = cut?.axis ?? '';
    at('cutfields').hidden = !cut;
    if (!cut || !this.page.shown())
      return;
    const [low, high] = this.span();
    const fill = (id, value) => {
      if (document.activeElement !== at(id) || at(id).type === 'range')
        at(id).value = value;
    };
    at('cutnormal').hidden = cut.axis !== 'own';
    [...at('cutnormal').children].forEach((field, i) => {
      if (document.activeElement !== field)
        field.value = shortly(cut.direction[i]);
    });
    Object.assign(at('cutslider'), { min: low, max: high });
    at('cutthickslider').min = 0.005 * (high - low);
    at('cutthickslider').max = high - low;
    fill('cutslider', cut.place);
    fill('cutplace', cut.place);
    fill('cutthickslider', cut.thickness ?? high - low);
    fill('cutthick', cut.thickness ?? '');
  }

  // --- to and from the server

  words() {
    if (!this.cut)
      return null;
    const { direction, isFlipped, place, thickness } = this.cut;
    const sign = isFlipped ? -1 : 1;
    const words = { normal: direction.map((part) => sign * part + 0), at: sign * place };
    return thickness === null ? words : { ...words, thickness };
  }

  /// While a slider moves the latest place is told whenever the one before is shown; where trees
  /// take long that may be at its end.
  tell(isLast) {
    this.showFields();
    this.outline();
    this.isDue = !isSame(this.words(), this.told);
    if (this.isDue && (isLast || !this.isWaiting)) {
      this.isDue = false;
      this.isWaiting = true;
      this.told = this.words();
      this.page.before();
      this.page.send(this.told);
    }
  }

  take(state) {
    if (this.isWaiting && state.version !== this.version) {
      this.isWaiting = false;
      if (this.isDue)
        this.tell(false);
    }
    this.version = state.version;
    if (!this.isWaiting && !isSame(state.chosen.cut, this.words()))
      this.takeOther(state.chosen.cut);
    this.showFields();
    this.outline();
  }

  /// What another browser has chosen.
  takeOther(words) {
    this.told = words;
    this.cut = null;
    if (!words)
      return;
    const length = size(words.normal);
    const axis = Object.keys(axes).find((name) => Math.abs(dot(axes[name], words.normal)) === length);
    const isFlipped = axis !== undefined && dot(axes[axis], words.normal) < 0;
    this.cut = { axis: axis ?? 'own', direction: axes[axis] ?? unit(words.normal),
      place: isFlipped ? -words.at : words.at, isFlipped, thickness: words.thickness ?? null };
  }

  // --- in the picture

  /// Shows where the plane lies until it is seen by what it leaves out, and a moment longer.
  outline() {
    const isChanged = !isSame(this.words(), this.outlined);
    this.outlined = this.words();
    if (isChanged) {
      clearTimeout(this.timer);
      this.isOutlined = this.cut !== null;
      this.timer = setTimeout(() => this.fade(), 1200);
    }
    this.draw();
  }

  fade() {
    if (this.isWaiting) {
      this.timer = setTimeout(() => this.fade(), 300);
      return;
    }
    this.isOutlined = false;
    this.draw();
  }

  draw() {
    const { cut } = this;
    const camera = this.page.camera();
    const isDrawn = cut && camera && this.page.shown() && this.isOutlined;
    const place = (p) => (cut.thickness === null ? null : p - cut.thickness * (cut.isFlipped ? -1 : 1));
    this.page.drawOutline('plane', isDrawn ? this.corners(cut.place) : []);
    this.page.drawOutline('behind', isDrawn && place(0) !== null ? this.corners(place(cut.place)) : []);
  }

  /// The corners of a plane's part within the box around all particles, in their order around it.
  corners(place) {
    const [low, high] = this.page.shown().extent;
    const { direction } = this.cut;
    const corner = (number) => [0, 1, 2].map((i) => ((number >> i) & 1 ? high[i] : low[i]));
    const points = [];
    for (let from = 0; from < 8; ++from)
      for (let i = 0; i < 3; ++i) {
        const [a, b] = [corner(from), corner(from | (1 << i))];
        const [u, v] = [dot(a, direction) - place, dot(b, direction) - place];
        if (!((from >> i) & 1) && u !== v && u * v <= 0)
          points.push(add(a, times(sub(b, a), u / (u - v))));
      }
    if (points.length < 3)
      return [];
    const middle = times(points.reduce(add), 1 / points.length);
    const some = Math.abs(direction[0]) < 0.9 ? axes.x : axes.y;
    const right = unit(sub(some, times(direction, dot(some, direction))));
    const up = cross(direction, right);
    const angle = (p) => Math.atan2(dot(sub(p, middle), up), dot(sub(p, middle), right));
    return points.sort((a, b) => angle(a) - angle(b));
  }
}
