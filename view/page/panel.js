// What stands beside the picture: title, settings, colour bar, picked particle, frames.

const at = (id) => document.getElementById(id);
const grouped = (number) => number.toLocaleString('en-US');

/// A number with as many digits as a reader wants.
export function shortly(value) {
  return Number.isFinite(value) ? String(Number(value.toPrecision(5))) : String(value);
}

/// A number of single precision with the digits that it was written with, if that is what it is.
function digits(value) {
  for (let count = 5; count < 9; ++count) {
    const short = Number(value.toPrecision(count));
    if (Math.fround(short) === value)
      return String(short);
  }
  return String(Number(value.toPrecision(9)));
}

function element(name, text) {
  const made = document.createElement(name);
  made.textContent = text; // what comes from files is never markup
  return made;
}

export class Panel {
  /// `act` has `look(fields)` and `scene(fields)`, which tell the server.
  constructor(act) {
    this.act = act;
    this.state = null;
    this.listen();
  }

  listen() {
    const { act } = this;
    const onChange = (id, take) => at(id).addEventListener('change', () => take(at(id)));
    const number = (input) => (input.value !== '' && input.checkValidity() ? Number(input.value) : null);
    onChange('colorby', (select) => act.scene({ colorBy: select.value }));
    onChange('colormap', (select) => act.scene({ colorMap: select.value }));
    for (const id of ['low', 'high'])
      onChange(id, () => {
        const range = [number(at('low')), number(at('high'))];
        if (range.every((value) => value !== null))
          act.scene({ range });
      });
    at('autorange').addEventListener('click', () => act.scene({ range: null }));
    onChange('radius', (input) => number(input) && act.scene({ radiusScale: number(input) }));
    onChange('shade', (select) => {
      at('aofield').hidden = select.value !== 'ao';
      act.look({ shade: select.value });
    });
    onChange('samples', (input) => number(input) && act.look({ samples: number(input) }));
    onChange('aosamples', (input) => number(input) !== null && act.look({ aoSamples: number(input) }));
    onChange('background', (select) => {
      at('ownfield').hidden = select.value !== 'own';
      this.tellBackground();
    });
    onChange('own', () => this.tellBackground());
  }

  tellBackground() {
    const choice = at('background').value;
    const background = choice === 'own' ? at('own').value : choice;
    at('picture').classList.toggle('seethrough', background === 'none');
    this.act.look({ background });
  }

  /// Shows what the server tells of the scene. The look is this browser's own: it is taken over
  /// once.
  show(state) {
    const isFirst = !this.state;
    this.state = state;
    if (isFirst)
      this.showLook(state.look);
    at('command').hidden = !state.hasCommand;
    const { shown } = state;
    if (!shown)
      return;
    document.title = `${shown.file} · Kelpa`;
    at('file').textContent = shown.file;
    at('file').title = `${shown.file}, ${shown.format}`;
    this.showColumns(state);
    this.showBar(shown.bar);
    this.showFrames(state.frames);
    if (document.activeElement !== at('radius'))
      at('radius').value = shortly(state.chosen.radiusScale);
    at('notes').hidden = shown.notes.length === 0;
    at('notes').lastElementChild.replaceChildren(...shown.notes.map((note) => element('li', note)));
  }

  showLook(look) {
    at('shade').value = look.shade;
    at('aofield').hidden = look.shade !== 'ao';
    at('samples').value = look.samples;
    at('aosamples').value = look.aoSamples;
    const known = [...at('background').options].some((option) => option.value === look.background);
    at('background').value = known ? look.background : 'own';
    if (/^#[0-9a-f]{6}$/i.test(look.background))
      at('own').value = look.background;
    at('ownfield').hidden = known;
    at('picture').classList.toggle('seethrough', look.background === 'none');
  }

  showColumns({ shown, chosen }) {
    const names = shown.columns;
    const usual = element('option', 'The file’s colours');
    usual.value = '';
    at('colorby').replaceChildren(usual, ...names.map((name) => {
      const option = element('option', name);
      option.value = name;
      return option;
    }));
    at('colorby').value = names.includes(chosen.colorBy) ? chosen.colorBy : '';
    const usualMap = element('option', 'Usual');
    usualMap.value = '';
    at('colormap').replaceChildren(usualMap, ...chosen.colorMaps.split('|').flatMap((name) =>
      (name === 'kinds' ? [name] : [name, `${name}_r`]).map((each) => element('option', each))));
    at('colormap').value = chosen.colorMap;
    at('mapfield').hidden = !chosen.colorBy;
    at('rangefields').hidden = !shown.bar;
    if (shown.bar && ![at('low'), at('high')].includes(document.activeElement)) {
      at('low').value = shortly(shown.bar.low);
      at('high').value = shortly(shown.bar.high);
    }
  }

  showBar(bar) {
    at('bar').hidden = !bar;
    if (!bar)
      return;
    at('barname').textContent = bar.column;
    at('gradient').style.background = `linear-gradient(to top, ${bar.stops.join(',')})`;
    const ticks = [];
    for (let i = 4; i >= 0; --i)
      ticks.push(element('span', shortly(bar.low + (bar.high - bar.low) * i / 4)));
    at('ticks').replaceChildren(...ticks);
  }

  showFrames(frames) {
    const isFilm = frames.count > 1;
    at('frames').hidden = !isFilm;
    document.body.classList.toggle('hasframes', isFilm);
    if (!isFilm)
      return;
    at('slider').max = frames.count - 1;
    if (document.activeElement !== at('slider') || !this.isSliding)
      at('slider').value = frames.index;
    at('framenumber').textContent = `${this.state.shown.frame} of ${frames.last}`;
  }

  /// The line below the title.
  showFacts(picture) {
    const shown = this.state?.shown;
    if (!shown)
      return;
    const isLess = shown.used !== shown.particles;
    const parts = [isLess ? `${grouped(shown.used)} of ${grouped(shown.particles)} particles`
      : `${grouped(shown.particles)} particles`];
    if (picture)
      parts.push(picture.samples === 0 ? 'moving' : picture.samples < picture.of
        ? `sample ${picture.samples} of ${picture.of}` : `${picture.of} samples`);
    at('facts').textContent = parts.join(' · ');
  }

  showNews(news) {
    at('error').hidden = !news.error;
    at('error').textContent = news.error;
    const part = news.fraction >= 0 ? `, ${Math.round(100 * news.fraction)} %` : '';
    at('work').hidden = !news.work;
    at('work').textContent = news.work ? news.work[0].toUpperCase() + news.work.slice(1) + part : '';
    if (!this.state?.shown && news.work)
      at('facts').textContent = '';
    this.showBusy(news.work ? news.fraction : null);
  }

  /// The line along the upper edge: a part, an unknown one below 0, none for null.
  showBusy(fraction) {
    const busy = at('busy');
    busy.hidden = fraction === null;
    busy.classList.toggle('endless', fraction !== null && fraction < 0);
    busy.firstElementChild.style.width = fraction >= 0 && fraction !== null ? `${100 * fraction}%` : '';
  }

  showPicked(picked) {
    at('picked').hidden = !picked;
    document.body.classList.toggle('haspicked', Boolean(picked));
    if (!picked)
      return;
    at('swatch').style.background = picked.color;
    at('pickedid').textContent = `Particle ${picked.id}`;
    const number = digits;
    const cells = [['x', number(picked.position[0])], ['y', number(picked.position[1])],
      ['z', number(picked.position[2])], ['radius', number(picked.radius)]];
    const known = new Set(cells.map(([name]) => name));
    for (const [name, value] of picked.row ?? [])
      if (!known.has(name) && name !== 'id')
        cells.push([name, value]);
    at('cells').replaceChildren(...cells.map(([name, value]) => {
      const row = document.createElement('tr');
      row.append(element('th', name), element('td', value));
      return row;
    }));
  }

  toast(text) {
    at('toast').textContent = text;
    at('toast').hidden = false;
    clearTimeout(this.toastTimer);
    this.toastTimer = setTimeout(() => { at('toast').hidden = true; }, 2500);
  }
}
