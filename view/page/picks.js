// Which particle lies in a place: asked of the server for who clicks and for what is grabbed.

/// The particle that is picked, and what lies under the pointer.
export class Picks {
  /// `send` takes a question; `page` hears `picked(answer)`, null for none, and `look(position)`.
  constructor(send, page) {
    this.send = send;
    this.page = page;
    this.picked = null;
    this.anchor = null; // what lies under the pointer, in the file's coordinates
    this.anchorPlace = null;
    this.number = 0;
    this.purposes = new Map(); // of what is asked, by number
  }

  /// Asks what lies in a place, as an 'anchor', to 'pick' it or to 'look' at it.
  ask(place, purpose) {
    const number = ++this.number;
    this.purposes.set(number, purpose);
    if (purpose === 'anchor')
      this.anchorPlace = place;
    this.send({ pick: { number, ...place, row: purpose !== 'anchor' } });
  }

  /// Forgets what lay under the pointer, and asks what does now.
  grab(place) {
    this.anchor = null;
    if (place)
      this.ask(place, 'anchor');
  }

  /// What lies close to a place of the pointer, or null until that is known.
  anchorNear(place) {
    const from = this.anchorPlace;
    if (!from || Math.hypot(from.x - place.x, from.y - place.y) >= 0.02)
      this.grab(place);
    return this.anchor;
  }

  take(answer) {
    const purpose = this.purposes.get(answer.number);
    this.purposes.delete(answer.number);
    if (purpose === 'anchor') {
      this.anchor = answer.hit ? answer.place : null;
      return;
    }
    if (!answer.hit) {
      if (purpose === 'pick')
        this.unpick();
      return;
    }
    this.picked = answer;
    this.page.picked(answer);
    if (purpose === 'look')
      this.page.look(answer.position);
  }

  /// What the file says of the particle that was picked; that comes later.
  takeRow(row) {
    if (row.number !== this.picked?.number)
      return;
    this.picked.row = row.cells;
    this.page.picked(this.picked);
  }

  unpick() {
    this.picked = null;
    this.page.picked(null);
  }
}
