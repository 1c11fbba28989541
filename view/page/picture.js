// The picture, and the ring around what is picked.

export class PictureView {
  constructor() {
    this.canvas = document.getElementById('picture');
    this.context = this.canvas.getContext('2d');
    this.ring = document.getElementById('ring');
    this.fixedSize = null; // of the picture, where the command gave one
    this.last = 0; // number of the newest picture
    this.facts = null;
  }

  /// The pixels that the picture has room for, or those that it was given.
  wantedSize() {
    if (this.fixedSize)
      return this.fixedSize;
    const box = this.canvas.getBoundingClientRect();
    let ratio = window.devicePixelRatio || 1;
    const most = 2 ** 24; // pixels that the server renders
    ratio = Math.min(ratio, Math.sqrt(most / Math.max(1, box.width * box.height)));
    const side = (length) => Math.max(1, Math.min(8192, Math.round(length * ratio)));
    return [side(box.width), side(box.height)];
  }

  /// The part of the page that the picture takes: in the middle, as large as its shape allows.
  box() {
    const box = this.canvas.getBoundingClientRect();
    const { width, height } = this.canvas;
    const scale = Math.min(box.width / width, box.height / height);
    const [w, h] = [width * scale, height * scale];
    return { left: box.left + (box.width - w) / 2, top: box.top + (box.height - h) / 2,
      width: w, height: h };
  }

  /// A place of the page as one of the picture, from 0 to 1; null beside it.
  placeOf(pageX, pageY) {
    const box = this.box();
    const x = (pageX - box.left) / box.width;
    const y = (pageY - box.top) / box.height;
    return x >= 0 && x <= 1 && y >= 0 && y <= 1 ? { x, y } : null;
  }

  /// Shows a picture of the server unless a newer one came first; tells whether it did.
  async show(facts, bytes) {
    const blob = new Blob([bytes], { type: facts.type });
    const bitmap = await createImageBitmap(blob,
      { colorSpaceConversion: 'none', premultiplyAlpha: 'default' });
    if (facts.number <= this.last)
      return false;
    this.last = facts.number;
    this.facts = facts;
    const [width, height] = this.wantedSize();
    if (this.canvas.width !== width || this.canvas.height !== height) {
      this.canvas.width = width;
      this.canvas.height = height;
    }
    this.context.clearRect(0, 0, width, height);
    this.context.imageSmoothingEnabled = bitmap.width !== width;
    this.context.drawImage(bitmap, 0, 0, width, height);
    bitmap.close();
    this.noteBrightness();
    return true;
  }

  /// Marks come in black or in white, as can be read on the picture's lower left corner.
  noteBrightness() {
    const { width, height } = this.canvas;
    const corner = this.context.getImageData(Math.min(8, width - 1), Math.max(0, height - 9), 1, 1);
    const [r, g, b, a] = corner.data;
    const light = a < 128 ? 255 : 0.3 * r + 0.6 * g + 0.1 * b;
    document.body.classList.toggle('darkpicture', light < 110);
  }

  /// Draws a closed line through points that `project` gives, see `Camera.project`; none where one
  /// of them is behind the eye.
  outline(id, seen) {
    const box = this.box();
    const polygon = document.getElementById(id);
    polygon.setAttribute('points', seen.every(Boolean) ? seen.map(({ x, y }) =>
      `${box.left + box.width / 2 + x * box.height},${box.top + box.height / 2 + y * box.height}`).join(' ') : '');
  }

  /// Draws the ring where a sphere shows; none for null.
  mark(seen) {
    const circles = this.ring.querySelectorAll('circle');
    for (const circle of circles)
      circle.style.visibility = seen ? 'visible' : 'hidden';
    if (!seen)
      return;
    const box = this.box();
    for (const circle of circles) {
      circle.setAttribute('cx', box.left + box.width / 2 + seen.x * box.height);
      circle.setAttribute('cy', box.top + box.height / 2 + seen.y * box.height);
      circle.setAttribute('r', Math.max(6, seen.radius * box.height + 2));
    }
  }
}
