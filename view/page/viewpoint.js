// Where one looks from: moved here, told to the server, kept in the link.
import { Camera, dot, sub } from './camera.js';

const restAfter = 120; // milliseconds without a move until a picture is refined

/// The camera of the page, or where the server places it.
export class Viewpoint {
  /// `page` gives its `connection` and the facts of what is `shown`, and hears `moved()` when the
  /// camera is told and `changed()` when a mode may have changed.
  constructor(picture, page) {
    this.picture = picture;
    this.page = page;
    this.camera = Camera.fromLink(location.hash); // null: where the server places it
    this.framed = {}; // how the server is to place it: { view: 'front' }, or {} for the first camera
    this.placed = null; // where it has placed it
    this.isFree = false;
    this.isHeld = false;
    this.number = 0;
    this.isDue = false;
    this.restTimer = 0;
  }

  get current() { return this.camera ?? this.placed; }

  /// The camera to be moved, from where it was placed; null before that.
  own() {
    if (!this.camera && this.placed)
      this.camera = this.placed.copy();
    return this.camera;
  }

  // --- to the server

  tell(moving) {
    const fields = this.camera ? this.camera.toMessage() : { ...this.framed, fov: 35 };
    this.page.connection().send({ camera: { ...fields, number: ++this.number, moving } });
    this.page.moved();
  }

  /// Tells the camera with the next picture of the screen, while the line takes it.
  tellSoon() {
    document.body.classList.add('turning');
    this.tellAtRest();
    if (this.isDue)
      return;
    this.isDue = true;
    const send = () => {
      const connection = this.page.connection();
      if (connection.isOpen && !connection.isFree) {
        requestAnimationFrame(send);
        return;
      }
      this.isDue = false;
      this.tell(true);
    };
    requestAnimationFrame(send);
  }

  tellAtRest() {
    clearTimeout(this.restTimer);
    this.restTimer = setTimeout(() => this.rest(), restAfter);
  }

  rest() {
    document.body.classList.remove('turning');
    if (this.isHeld) {
      this.tellAtRest();
      return;
    }
    this.tell(false);
    if (this.camera)
      history.replaceState(null, '', this.camera.toLink());
  }

  /// Where the server has placed it, for the camera told last.
  takePlaced(told) {
    this.placed = Camera.fromServer(told, this.page.shown().diagonal);
    this.page.changed();
    this.page.moved();
  }

  // --- placed

  /// Has the server place it, to see all from a side or as at first.
  frame(view) {
    this.camera = null;
    this.framed = view ? { view } : {};
    history.replaceState(null, '', location.pathname);
    this.tell(false);
  }

  /// From frame to frame the camera stays where it is.
  stay() {
    if (!this.camera && this.own())
      this.tell(false);
  }

  follow(link) {
    const linked = Camera.fromLink(link);
    if (!linked)
      return;
    this.camera = linked;
    this.tell(false);
  }

  toLink() {
    return location.href.replace(/#.*/, '') + (this.own() ? this.camera.toLink() : '');
  }

  // --- moved

  turn(dx, dy) {
    if (!this.own())
      return;
    const box = this.picture.box();
    const angle = Math.PI / Math.min(box.width, box.height);
    this.camera.turn(dx * angle, dy * angle, this.isFree ? null : this.page.shown().up);
    this.tellSoon();
  }

  /// `anchor` is what was grabbed, if it is known: it stays under the pointer.
  pan(dx, dy, anchor) {
    if (!this.own())
      return;
    const { camera } = this;
    const depth = anchor && !camera.ortho ? dot(sub(anchor, camera.eye), camera.forward) : 0;
    const factor = depth > 0 ? depth / camera.distance : 1;
    const { height } = this.picture.box();
    camera.pan(factor * dx / height, factor * dy / height);
    this.tellSoon();
  }

  roll(angle) {
    if (!this.own())
      return;
    this.isFree ||= Math.abs(angle) > 0.02; // a small twist of the fingers is none
    if (this.isFree)
      this.camera.roll(angle);
    this.page.changed();
    this.tellSoon();
  }

  /// Comes nearer to `anchor`, what lies in a place, or to where nothing is known to lie.
  zoom(place, factor, anchor) {
    if (!this.own())
      return;
    const box = this.picture.box();
    const [x, y] = [2 * place.x - 1, 1 - 2 * place.y];
    const point = anchor ?? this.camera.pointAt(x, y, box.width / box.height);
    this.camera.zoomAt(point, factor, this.page.shown().diagonal);
    this.tellSoon();
  }

  zoomMiddle(factor) {
    if (!this.own())
      return;
    this.camera.zoomAt(this.camera.target, factor, this.page.shown().diagonal);
    this.tellSoon();
  }

  /// Goes to where a point is in the middle, in a quarter of a second.
  flyTo(point) {
    if (!this.own())
      return;
    const begin = performance.now();
    const from = [...this.camera.target];
    const isStill = matchMedia('(prefers-reduced-motion: reduce)').matches;
    const step = (now) => {
      const t = isStill ? 1 : Math.min(1, (now - begin) / 250);
      const eased = t * t * (3 - 2 * t);
      this.camera.centre(from.map((v, i) => v + (point[i] - v) * eased));
      this.tellSoon();
      if (t < 1)
        requestAnimationFrame(step);
    };
    requestAnimationFrame(step);
  }

  toggleOrtho() {
    if (!this.own())
      return;
    this.camera = this.camera.withOrtho(!this.camera.ortho, this.page.shown().diagonal);
    this.page.changed();
    this.tellSoon();
  }

  toggleFree() {
    this.isFree = !this.isFree;
    this.page.changed();
  }
}
