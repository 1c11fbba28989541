// The page: what is done on it goes to the server, what the server sends is shown.
import { Camera, dot, sub } from './camera.js';
import { Connection } from './connection.js';
import { listenToKeys, PointerControls, showKeys } from './controls.js';
import { Film } from './film.js';
import { Panel } from './panel.js';
import { PictureView } from './picture.js';

const at = (id) => document.getElementById(id);
const picture = new PictureView();

let camera = Camera.fromLink(location.hash); // null: where the server places it
let framed = {}; // how the server is to place it: { view: 'front' }, or {} for the first camera
let cameraNumber = 0;
let state = null;
let isFree = false;
let anchor = null; // what lies under the pointer, in the file's coordinates
let picked = null;
let pickNumber = 0;
let purposes = new Map(); // of picks that are asked
let isCameraDue = false;
let restTimer = 0;

// --- to the server

/// Sends the camera with the next picture of the screen, while the line takes it.
function sendSoon() {
  document.body.classList.add('turning');
  clearTimeout(restTimer);
  restTimer = setTimeout(sendAtRest, 120);
  if (isCameraDue)
    return;
  isCameraDue = true;
  requestAnimationFrame(function send() {
    if (connection.isOpen && !connection.isFree) {
      requestAnimationFrame(send);
      return;
    }
    isCameraDue = false;
    sendCamera(true);
  });
}

function sendCamera(moving) {
  const fields = camera ? camera.toMessage() : { ...framed, fov: 35 };
  connection.send({ camera: { ...fields, number: ++cameraNumber, moving } });
  markPicked();
}

function sendAtRest() {
  document.body.classList.remove('turning');
  if (isDragging) {
    restTimer = setTimeout(sendAtRest, 120);
    return;
  }
  sendCamera(false);
  if (camera)
    history.replaceState(null, '', camera.toLink());
}

function frame(view) {
  camera = null;
  framed = view ? { view } : {};
  history.replaceState(null, '', location.pathname);
  sendCamera(false);
}

function sendSize() {
  connection.send({ size: picture.wantedSize() });
  markPicked();
}

// --- the camera

/// Where it was placed is where it is moved from.
let placed = null;
function ownCamera() {
  if (!camera && placed)
    camera = placed.copy();
  return camera;
}

let isDragging = false;
const act = {
  grab(place) {
    isDragging = true;
    anchor = null;
    if (place)
      ask(place, 'anchor');
    picture.canvas.classList.add('turning');
  },
  release() {
    isDragging = false;
    picture.canvas.classList.remove('turning');
  },
  turn(dx, dy) {
    if (!ownCamera())
      return;
    const box = picture.box();
    const angle = Math.PI / Math.min(box.width, box.height);
    camera.turn(dx * angle, dy * angle, isFree ? null : state.shown.up);
    sendSoon();
  },
  pan(dx, dy) {
    if (!ownCamera())
      return;
    // What was grabbed stays under the pointer.
    const depth = anchor && !camera.ortho ? dot(sub(anchor, camera.eye), camera.forward) : 0;
    const factor = depth > 0 ? depth / camera.distance : 1;
    const { height } = picture.box();
    camera.pan(factor * dx / height, factor * dy / height);
    sendSoon();
  },
  roll(angle) {
    if (!ownCamera())
      return;
    isFree ||= Math.abs(angle) > 0.02; // a small twist of the fingers is none
    if (isFree)
      camera.roll(angle);
    showModes();
    sendSoon();
  },
  zoom(place, factor) {
    if (!ownCamera())
      return;
    const box = picture.box();
    const [x, y] = [2 * place.x - 1, 1 - 2 * place.y];
    const isNear = anchorPlace && Math.hypot(anchorPlace.x - place.x, anchorPlace.y - place.y) < 0.02;
    if (!isNear) {
      anchor = null;
      ask(place, 'anchor');
    }
    const point = anchor ?? camera.pointAt(x, y, box.width / box.height);
    camera.zoomAt(point, factor, state.shown.diagonal);
    sendSoon();
  },
  zoomMiddle(factor) {
    if (!ownCamera())
      return;
    camera.zoomAt(camera.target, factor, state.shown.diagonal);
    sendSoon();
  },
  view(name) { frame(name); },
  reset() { frame(null); },
  toggleOrtho() {
    if (!ownCamera())
      return;
    camera = camera.withOrtho(!camera.ortho, state.shown.diagonal);
    showModes();
    sendSoon();
  },
  toggleFree() {
    isFree = !isFree;
    showModes();
    panel.toast(isFree ? 'Turns freely' : 'Turns level');
  },
  click(place) { ask(place, 'pick'); },
  clickMiddle() {
    at('cross').hidden = false;
    setTimeout(() => { at('cross').hidden = true; }, 900);
    ask({ x: 0.5, y: 0.5 }, 'pick');
  },
  doubleClick(place) { ask(place, 'look'); },
  lookAtPicked() { picked ? flyTo(picked.position) : panel.toast('No particle is picked'); },
  step(count) { film.step(count); },
  togglePlay() { film.toggle(); },
  save(format) { save(format); },
  copyCommand() { connection.send({ command: true }); },
  copyLink() {
    ownCamera();
    const link = location.href.replace(/#.*/, '') + (camera ? camera.toLink() : '');
    copy(link, 'Link');
  },
  togglePanel() {
    at('panel').hidden = !at('panel').hidden;
    at('viewlist').hidden = true;
    at('settings').setAttribute('aria-expanded', String(!at('panel').hidden));
    document.body.classList.toggle('haspanel', !at('panel').hidden);
  },
  toggleFull() {
    document.fullscreenElement ? document.exitFullscreen() : document.documentElement.requestFullscreen();
  },
  help() { at('help').showModal(); },
  escape() {
    if (!at('viewlist').hidden)
      toggleViews();
    else if (picked)
      unpick();
    else if (!at('panel').hidden)
      act.togglePanel();
    picture.canvas.focus();
  },
};

/// Goes to where a point is in the middle, in a quarter of a second.
function flyTo(point) {
  if (!ownCamera())
    return;
  const begin = performance.now();
  const from = [...camera.target];
  const isStill = matchMedia('(prefers-reduced-motion: reduce)').matches;
  const step = (now) => {
    const t = isStill ? 1 : Math.min(1, (now - begin) / 250);
    const eased = t * t * (3 - 2 * t);
    camera.centre(from.map((v, i) => v + (point[i] - v) * eased));
    sendSoon();
    if (t < 1)
      requestAnimationFrame(step);
  };
  requestAnimationFrame(step);
}

// --- particles

let anchorPlace = null;
function ask(place, purpose) {
  const number = ++pickNumber;
  purposes.set(number, purpose);
  if (purpose === 'anchor')
    anchorPlace = place;
  connection.send({ pick: { number, ...place, row: purpose !== 'anchor' } });
}

function takePicked(answer) {
  const purpose = purposes.get(answer.number);
  purposes.delete(answer.number);
  if (purpose === 'anchor') {
    anchor = answer.hit ? answer.place : null;
    return;
  }
  if (!answer.hit) {
    if (purpose === 'pick')
      unpick();
    return;
  }
  picked = answer;
  panel.showPicked(picked);
  markPicked();
  if (purpose === 'look')
    flyTo(answer.position);
}

function unpick() {
  picked = null;
  panel.showPicked(null);
  markPicked();
}

function markPicked() {
  const from = camera ?? placed;
  picture.mark(picked && from ? from.project(picked.position, picked.radius) : null);
}

// --- frames

const film = new Film(
  (scene) => connection.send({ scene }),
  () => {
    // From frame to frame the camera stays where it is.
    if (!camera && ownCamera())
      sendCamera(false);
    unpick();
  },
  () => state);

// --- out

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

// --- from the server

const panel = new Panel({
  look: (look) => connection.send({ look }),
  scene: (scene) => connection.send({ scene }),
});

function takeState(told) {
  state = told;
  picture.fixedSize = told.size ?? null;
  panel.show(told);
  panel.showFacts(picture.facts);
  if (isFresh) {
    isFresh = false;
    sendSize();
    if (camera)
      sendCamera(false);
  }
}

function takeCamera(told) {
  if (!state?.shown)
    return;
  placed = Camera.fromServer(told, state.shown.diagonal);
  showModes();
  markPicked();
}

async function takePicture(facts, bytes) {
  if (await picture.show(facts, bytes)) {
    connection.send({ drawn: facts.number });
    panel.showFacts(facts);
    document.body.dataset.picture = JSON.stringify(facts);
    film.goOn(facts);
  }
}

let isFresh = true;
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
    if (message.camera)
      takeCamera(message.camera);
    if (message.picked)
      takePicked(message.picked);
    if (message.row && picked && message.row.number === picked.number) {
      picked.row = message.row.cells;
      panel.showPicked(picked);
    }
    if (message.command)
      copy(message.command, 'Command');
  },
  picture: takePicture,
});

// --- the page's own

function showModes() {
  const from = camera ?? placed;
  at('ortho').setAttribute('aria-pressed', String(Boolean(from?.ortho)));
  at('free').setAttribute('aria-pressed', String(isFree));
}

function toggleViews() {
  at('viewlist').hidden = !at('viewlist').hidden;
  at('views').setAttribute('aria-expanded', String(!at('viewlist').hidden));
}

new PointerControls(picture, act);
listenToKeys(act);
new ResizeObserver(() => sendSize()).observe(picture.canvas);
const clicks = {
  reset: act.reset, views: toggleViews, ortho: act.toggleOrtho, free: act.toggleFree, full: act.toggleFull,
  keys: act.help, settings: act.togglePanel, png: () => save('png'), exr: () => save('exr'),
  command: act.copyCommand, link: act.copyLink, look: act.lookAtPicked, unpick,
  back: () => act.step(-1), next: () => act.step(1), play: act.togglePlay,
};
for (const [id, action] of Object.entries(clicks))
  at(id).addEventListener('click', action);
for (const button of at('viewlist').children)
  button.addEventListener('click', () => {
    toggleViews();
    frame(button.dataset.view);
  });
at('slider').addEventListener('input', () => {
  film.stop();
  panel.isSliding = true;
  film.show(Number(at('slider').value));
});
at('slider').addEventListener('change', () => { panel.isSliding = false; });
addEventListener('hashchange', () => {
  const linked = Camera.fromLink(location.hash);
  if (linked) {
    camera = linked;
    sendCamera(false);
  }
});
showKeys(at('keylist'));
if (!document.fullscreenEnabled)
  at('full').hidden = true;
picture.canvas.focus();
