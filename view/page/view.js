// The page: what is done on it goes to the server, what the server sends is shown.
import { Connection } from './connection.js';
import { listenToKeys, PointerControls, showKeys } from './controls.js';
import { Cut } from './cut.js';
import { Film } from './film.js';
import { Panel } from './panel.js';
import { Picks } from './picks.js';
import { PictureView } from './picture.js';
import { Viewpoint } from './viewpoint.js';

const at = (id) => document.getElementById(id);

let state = null; // what the server last told of itself
let isFresh = true; // until it has told on this connection

const picture = new PictureView();
const viewpoint = new Viewpoint(picture, {
  connection: () => connection,
  shown: () => state.shown,
  moved: markPicked,
  changed: showModes,
});
const picks = new Picks((message) => connection.send(message), {
  picked(answer) {
    panel.showPicked(answer);
    markPicked();
  },
  look(position) { viewpoint.flyTo(position); },
});
const film = new Film(
  (scene) => connection.send({ scene }),
  () => {
    viewpoint.stay();
    picks.unpick();
  },
  () => state);
const panel = new Panel({
  look: (look) => connection.send({ look }),
  scene: (scene) => connection.send({ scene }),
});

const cut = new Cut({
  send(words) {
    picks.unpick();
    connection.send({ scene: { cut: words } });
  },
  shown: () => state?.shown,
  camera: () => viewpoint.current,
  before() { viewpoint.stay(); },
  drawOutline: (id, points) => picture.outline(id, points.map((p) => viewpoint.current.project(p, 0))),
});

function markPicked() {
  const from = viewpoint.current;
  const { picked } = picks;
  picture.mark(picked && from ? from.project(picked.position, picked.radius) : null);
  cut.draw();
}

function showModes() {
  at('ortho').setAttribute('aria-pressed', String(Boolean(viewpoint.current?.ortho)));
  at('free').setAttribute('aria-pressed', String(viewpoint.isFree));
}

// --- what people do

const act = {
  grab(place) {
    viewpoint.isHeld = true;
    picks.grab(place);
    picture.canvas.classList.add('turning');
  },
  release() {
    viewpoint.isHeld = false;
    picture.canvas.classList.remove('turning');
  },
  turn(dx, dy) { viewpoint.turn(dx, dy); },
  pan(dx, dy) { viewpoint.pan(dx, dy, picks.anchor); },
  roll(angle) { viewpoint.roll(angle); },
  zoom(place, factor) {
    if (viewpoint.current)
      viewpoint.zoom(place, factor, picks.anchorNear(place));
  },
  zoomMiddle(factor) { viewpoint.zoomMiddle(factor); },
  view(name) { viewpoint.frame(name); },
  reset() { viewpoint.frame(null); },
  toggleOrtho() { viewpoint.toggleOrtho(); },
  toggleFree() {
    viewpoint.toggleFree();
    panel.toast(viewpoint.isFree ? 'Turns freely' : 'Turns level');
  },
  click(place) { picks.ask(place, 'pick'); },
  clickMiddle() {
    at('cross').hidden = false;
    setTimeout(() => { at('cross').hidden = true; }, 900);
    picks.ask({ x: 0.5, y: 0.5 }, 'pick');
  },
  doubleClick(place) { picks.ask(place, 'look'); },
  lookAtPicked() {
    picks.picked ? viewpoint.flyTo(picks.picked.position) : panel.toast('No particle is picked');
  },
  cut(axis) { axis ? cut.cycle(axis) : cut.across(''); },
  cutSight() { cut.across('sight'); },
  moveCut(part) { cut.move(part); },
  thickenCut(part) { cut.thicken(part); },
  step(count) { film.step(count); },
  togglePlay() { film.toggle(); },
  save(format) { save(format); },
  copyCommand() { connection.send({ command: true }); },
  copyLink() { copy(viewpoint.toLink(), 'Link'); },
  togglePanel(click) {
    at('panel').hidden = !at('panel').hidden;
    at('viewlist').hidden = true;
    at('settings').setAttribute('aria-expanded', String(!at('panel').hidden));
    document.body.classList.toggle('haspanel', !at('panel').hidden);
    if (!click && !at('panel').hidden)
      at('colorby').focus(); // who comes by a key goes on by keys
  },
  toggleFull() {
    document.fullscreenElement ? document.exitFullscreen() : document.documentElement.requestFullscreen();
  },
  help() {
    at('help').showModal();
    at('help').scrollTop = 0; // of which the focus shows the end, where it is long
  },
  escape() {
    if (!at('viewlist').hidden)
      toggleViews();
    else if (picks.picked)
      picks.unpick();
    else if (!at('panel').hidden)
      act.togglePanel();
    picture.canvas.focus();
  },
};

function toggleViews() {
  at('viewlist').hidden = !at('viewlist').hidden;
  at('views').setAttribute('aria-expanded', String(!at('viewlist').hidden));
}

function save(format) {
  if (!state?.shown)
    return;
  const link = document.createElement('a');
  link.href = `picture.${format}?${state.browser}`;
  link.download = '';
  link.click();
  panel.toast(`Saving ${format.toUpperCase()}`);
}

async function copy(text, name) {
  try {
    await navigator.clipboard.writeText(text);
    panel.toast(`${name} copied`);
  } catch {
    // Where pages may not write there, people still can.
    at('textname').textContent = name;
    at('textbody').value = text;
    at('text').showModal();
    at('textbody').select();
  }
}

// --- to and from the server

function sendSize() {
  connection.send({ size: picture.wantedSize() });
  markPicked();
}

function takeState(told) {
  state = told;
  picture.fixedSize = told.size ?? null;
  panel.show(told);
  cut.take(told);
  panel.showFacts(picture.facts);
  if (isFresh) {
    isFresh = false;
    sendSize();
    if (viewpoint.camera)
      viewpoint.tell(false);
  }
}

async function takePicture(facts, bytes) {
  if (await picture.show(facts, bytes)) {
    connection.send({ drawn: facts.number });
    panel.showFacts(facts);
    document.body.dataset.picture = JSON.stringify(facts);
    film.goOn(facts);
  }
}

const connection = new Connection({
  open() {
    isFresh = true;
    picture.last = 0;
    at('error').hidden = true;
  },
  closed(hasEverOpened) {
    film.stop();
    panel.showNews({ work: '', fraction: -1, error: hasEverOpened
      ? 'The server is gone, or has ended. Trying to reach it again.'
      : 'The server does not answer. It serves at most eight browsers at a time; close one.' });
  },
  text(message) {
    if (message.state)
      takeState(message.state);
    if (message.news)
      panel.showNews(message.news);
    if (message.camera && state?.shown)
      viewpoint.takePlaced(message.camera);
    if (message.picked)
      picks.take(message.picked);
    if (message.row)
      picks.takeRow(message.row);
    if (message.command)
      copy(message.command, 'Command');
  },
  picture: takePicture,
});

// --- the page's own

new PointerControls(picture, act);
listenToKeys(act);
new ResizeObserver(() => sendSize()).observe(picture.canvas);
const clicks = {
  reset: act.reset, views: toggleViews, ortho: act.toggleOrtho, free: act.toggleFree, full: act.toggleFull,
  keys: act.help, settings: act.togglePanel, png: () => save('png'), exr: () => save('exr'),
  command: act.copyCommand, link: act.copyLink, look: act.lookAtPicked, unpick: () => picks.unpick(),
  back: () => act.step(-1), next: () => act.step(1), play: act.togglePlay,
};
for (const [id, action] of Object.entries(clicks))
  at(id).addEventListener('click', action);
for (const button of at('viewlist').children)
  button.addEventListener('click', () => {
    toggleViews();
    viewpoint.frame(button.dataset.view);
  });
at('slider').addEventListener('input', () => {
  film.stop();
  panel.isSliding = true;
  film.show(Number(at('slider').value));
});
at('slider').addEventListener('change', () => { panel.isSliding = false; });
addEventListener('hashchange', () => viewpoint.follow(location.hash));
showKeys(at('keylist'));
if (!document.fullscreenEnabled)
  at('full').hidden = true;
picture.canvas.focus();
