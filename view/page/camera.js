// Where the camera stands, and how it is moved. Vectors are arrays of three numbers.

export const add = (a, b) => a.map((v, i) => v + b[i]);
export const sub = (a, b) => a.map((v, i) => v - b[i]);
export const times = (a, s) => a.map((v) => v * s);
export const dot = (a, b) => a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
export const cross = (a, b) => [
  a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]];
export const size = (a) => Math.hypot(...a);
export const unit = (a) => times(a, 1 / size(a));

const radian = Math.PI / 180;

/// A vector turned around an axis of length 1 (O. Rodrigues, 1840).
function turned(v, axis, angle) {
  const c = Math.cos(angle);
  return add(add(times(v, c), times(cross(axis, v), Math.sin(angle))),
    times(axis, dot(axis, v) * (1 - c)));
}

/// A camera that the user has moved: its eye, what it looks at, and its own upward direction, at
/// right angles to where it looks.
export class Camera {
  constructor(fields) {
    Object.assign(this, { fov: 35, zoom: 1, ortho: false }, fields);
  }

  /// The camera that the server has placed around the particles.
  static fromServer(told, diagonal) {
    const depth = told.depth > 0 ? told.depth : diagonal;
    if (!told.ortho) {
      const fov = 2 * Math.atan(told.tangent) / radian;
      return new Camera({
        eye: told.eye, target: add(told.eye, times(told.forward, depth)), up: told.up, fov });
    }
    // Parallel rays begin at the eye: far enough off for the particles to turn.
    const distance = depth + diagonal;
    const target = add(told.eye, times(told.forward, depth));
    const zoom = Math.tan(17.5 * radian) * distance / told.tangent;
    return new Camera({
      eye: sub(target, times(told.forward, distance)), target, up: told.up, zoom, ortho: true });
  }

  /// From the part of a link behind #, or null.
  static fromLink(hash) {
    const words = new URLSearchParams(hash.replace(/^#/, ''));
    const vector = (name) => (words.get(name) ?? '').split(',').map(Number);
    const camera = new Camera({
      eye: vector('eye'), target: vector('at'), up: vector('up'),
      fov: Number(words.get('fov') ?? 35), zoom: Number(words.get('zoom') ?? 1),
      ortho: words.get('ortho') === '1' });
    const numbers = [...camera.eye, ...camera.target, ...camera.up, camera.fov, camera.zoom];
    const isWhole = numbers.length === 11 && numbers.every(Number.isFinite);
    return isWhole && words.has('eye') && camera.distance > 0 ? camera : null;
  }

  toLink() {
    const text = (v) => v.map((x) => Number(x.toPrecision(9))).join(',');
    return `#eye=${text(this.eye)}&at=${text(this.target)}&up=${text(this.up)}&fov=${
      Number(this.fov.toPrecision(9))}&zoom=${Number(this.zoom.toPrecision(9))}${
      this.ortho ? '&ortho=1' : ''}`;
  }

  toMessage() {
    return { eye: this.eye, at: this.target, up: this.up, fov: this.fov, zoom: this.zoom,
      ortho: this.ortho };
  }

  copy() { return new Camera({ ...this }); }
  get forward() { return unit(sub(this.target, this.eye)); }
  get right() { return unit(cross(this.forward, this.up)); }
  get distance() { return size(sub(this.target, this.eye)); }
  /// Half the height that is seen where the target is.
  get halfHeight() { return Math.tan(this.fov * radian / 2) * this.distance / this.zoom; }

  /// Turns around the target by angles: to the side and upwards. With `axis` it stays level to it.
  turn(side, upward, axis) {
    let forward = this.forward;
    let up = this.up;
    if (axis) {
      forward = turned(forward, axis, -side);
      up = turned(up, axis, -side);
      // Not over the poles: where up becomes down the picture would tip over.
      const height = Math.acos(Math.max(-1, Math.min(1, dot(forward, axis))));
      const margin = radian;
      const wanted = Math.max(margin, Math.min(Math.PI - margin, height + upward));
      forward = turned(forward, unit(cross(forward, up)), height - wanted);
      up = unit(sub(axis, times(forward, dot(axis, forward))));
    } else {
      forward = turned(forward, up, -side);
      const right = unit(cross(forward, up));
      forward = turned(forward, right, -upward);
      up = cross(right, forward);
    }
    this.eye = sub(this.target, times(unit(forward), this.distance));
    this.up = unit(up);
  }

  /// Turns the picture in its plane.
  roll(angle) { this.up = unit(turned(this.up, this.forward, angle)); }

  /// Moves across the view, in units of the picture's height.
  pan(x, y) {
    const step = 2 * this.halfHeight;
    const move = add(times(this.right, -x * step), times(this.up, y * step));
    this.eye = add(this.eye, move);
    this.target = add(this.target, move);
  }

  /// The point of the plane through the target that shows at a place of the picture, from -1 to 1,
  /// upwards.
  pointAt(x, y, aspect) {
    const half = this.halfHeight;
    return add(this.target, add(times(this.right, x * half * aspect), times(this.up, y * half)));
  }

  /// Comes nearer, `factor` below 1, or goes; what is at `point` stays where it shows.
  zoomAt(point, factor, diagonal) {
    const next = this.distance * factor;
    if (!(next > 1e-6 * diagonal && next < 1e4 * diagonal))
      return;
    if (!this.ortho) {
      this.eye = add(point, times(sub(this.eye, point), factor));
      this.target = add(point, times(sub(this.target, point), factor));
      return;
    }
    const zoom = this.zoom / factor;
    if (!(zoom > 1e-6 && zoom < 1e6))
      return;
    this.zoom = zoom;
    const away = sub(point, this.target);
    const across = sub(away, times(this.forward, dot(away, this.forward)));
    const move = times(across, 1 - factor);
    this.eye = add(this.eye, move);
    this.target = add(this.target, move);
  }

  /// Looks at a point from the same side and distance.
  centre(point) {
    const move = sub(point, this.target);
    this.eye = add(this.eye, move);
    this.target = point;
  }

  /// The other projection, with what is at the target as large as before.
  withOrtho(ortho, diagonal) {
    const other = this.copy();
    const half = this.halfHeight;
    other.ortho = ortho;
    if (ortho) {
      const distance = Math.max(this.distance, 2 * diagonal);
      other.eye = sub(this.target, times(this.forward, distance));
      other.zoom = Math.tan(this.fov * radian / 2) * distance / half;
    } else {
      other.eye = sub(this.target, times(this.forward, half / Math.tan(this.fov * radian / 2)));
      other.zoom = 1;
    }
    return other;
  }

  /// Where a sphere shows: middle and radius in units of the picture's height, from its middle,
  /// downwards; null behind the eye.
  project(point, radius) {
    const away = sub(point, this.eye);
    const depth = dot(away, this.forward);
    const tangent = Math.tan(this.fov * radian / 2) / this.zoom;
    const half = this.ortho ? tangent * this.distance : tangent * depth;
    if (!(depth > 0))
      return null;
    return { x: dot(away, this.right) / (2 * half), y: -dot(away, this.up) / (2 * half),
      radius: radius / (2 * half) };
  }
}
