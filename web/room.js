// The page: the lobby, the tiles, the bar. janus.js talks to the server.

import {RoomVisit} from './janus.js';
import {FiguresPanel, Meter} from './figures.js';

const $ = (id) => document.getElementById(id);
const link = new URLSearchParams(location.hash.slice(1));
const tiles = new Map(); // participant -> {element, name, owner, meter, clear}
const panel = new FiguresPanel($('figures'), $('figures-cards'));

let visit = null;
let own = null; // MediaStream of our devices
let previewMeter = null;
const CAPTION_STAYS_MS = 8000;
const OWN = 'you';

// ---- saying things --------------------------------------------------------------------------------

const say = (text) => { $('status').textContent = text; };

function complain(text) {
  $('problem-text').textContent = text;
  $('problem').hidden = false;
}

function settle() {
  $('problem').hidden = true;
}

function deviceTrouble(error, what) {
  switch (error.name) {
    case 'NotAllowedError': return `The browser was not allowed to use the ${what}.`;
    case 'NotFoundError': case 'OverconstrainedError': return `No ${what} was found.`;
    case 'NotReadableError': return `The ${what} is in use by another program.`;
    default: return `The ${what} cannot be used: ${error.message || error.name}.`;
  }
}

// ---- devices --------------------------------------------------------------------------------------

const chosen = (id) => ($(id).value ? {deviceId: {exact: $(id).value}} : {});

/** Our devices, as far as available; failures are shown as text, and stop nothing. */
async function openDevices() {
  const wanted = {
    ...($('use-camera').checked && {
      video: {width: {ideal: 640}, height: {ideal: 480}, frameRate: {ideal: 30}, ...chosen('camera-choice')},
    }),
    ...($('use-microphone').checked && {audio: {echoCancellation: true, ...chosen('microphone-choice')}}),
  };
  closeDevices();
  if (!wanted.video && !wanted.audio) return null;
  if (!navigator.mediaDevices) {
    complain('Camera and microphone need a secure page: open it as https:// or on localhost. '
      + 'You can still see, hear and write.');
    return null;
  }
  try {
    return await navigator.mediaDevices.getUserMedia(wanted);
  } catch { /* one of the two may still be available */ }
  const tracks = [];
  const troubles = [];
  for (const [kind, what] of [['audio', 'microphone'], ['video', 'camera']]) {
    if (!wanted[kind]) continue;
    try {
      tracks.push(...(await navigator.mediaDevices.getUserMedia({[kind]: wanted[kind]})).getTracks());
    } catch (error) {
      troubles.push(deviceTrouble(error, what));
    }
  }
  if (troubles.length) complain(`${troubles.join(' ')} You can still take part without.`);
  return tracks.length ? new MediaStream(tracks) : null;
}

function closeDevices() {
  previewMeter?.close();
  previewMeter = null;
  own?.getTracks().forEach((track) => track.stop());
  own = null;
}

async function tryDevices() {
  settle();
  own = await openDevices();
  $('preview').hidden = !own;
  if (!own) return;
  $('preview-video').srcObject = own;
  previewMeter = new Meter(own);
  const devices = await navigator.mediaDevices.enumerateDevices();
  const kinds = [
    ['camera-choice', 'videoinput', 'Camera'], ['microphone-choice', 'audioinput', 'Microphone'],
  ];
  for (const [id, kind, word] of kinds) {
    const before = $(id).value;
    const found = devices.filter((device) => device.kind === kind && device.deviceId);
    const options = found.map((device, i) => new Option(device.label || `${word} ${i + 1}`, device.deviceId));
    $(id).replaceChildren(...options);
    if (found.some((device) => device.deviceId === before)) $(id).value = before;
  }
  say('Camera and microphone are on for a check.');
}

// ---- tiles ----------------------------------------------------------------------------------------

const hue = (text) => [...text].reduce((sum, letter) => (sum * 31 + letter.codePointAt(0)) % 360, 7);

function nameTile(tile, name) {
  const {element} = tile;
  tile.name = name;
  element.setAttribute('aria-label', name);
  element.style.setProperty('--hue', hue(name));
  element.querySelector('.who').textContent = name;
  element.querySelector('video').setAttribute('aria-label', `Picture of ${name}`);
  element.querySelector('.meter').setAttribute('aria-label', `Loudness of ${name}`);
  element.querySelector('.initials').textContent =
    name.split(/\s+/).slice(0, 2).map((word) => [...word][0] ?? '').join('').toUpperCase();
}

function makeTile(id, name, owner) {
  const element = $('tile').content.firstElementChild.cloneNode(true);
  element.dataset.id = id;
  const tile = {element, name, owner, meter: null, clear: 0};
  nameTile(tile, name);
  tiles.set(id, tile);
  $('alone').before(element);
  countPresence();
  return tile;
}

function setMedia(id, stream) {
  const tile = tiles.get(id);
  if (!tile) return;
  const video = tile.element.querySelector('video');
  if (video.srcObject !== stream) video.srcObject = stream;
  video.play().catch(() => {}); // the browser starts it when the page has been clicked
  const picture = stream?.getVideoTracks().length > 0;
  tile.element.classList.toggle('has-picture', picture);
  tile.element.querySelector('.state').textContent = picture || !stream ? '' : 'sound only';
  tile.meter?.close();
  tile.meter = stream ? new Meter(stream) : null;
}

function dropTile(id) {
  const tile = tiles.get(id);
  if (!tile) return;
  tile.meter?.close();
  clearTimeout(tile.clear);
  tile.element.remove();
  tiles.delete(id);
  countPresence();
}

function countPresence() {
  const others = [...tiles].filter(([id, {owner}]) => id !== OWN && !owner).length;
  const more = others === 1 ? '1 other is here' : `${others} others are here`;
  const here = others === 0 ? 'You are alone' : more;
  $('presence').textContent = visit ? here : '';
  $('alone').hidden = others > 0;
}

function showCaption(id, text, final) {
  const tile = tiles.get(id);
  if (!tile) return;
  const place = tile.element.querySelector('.caption');
  place.textContent = text;
  place.classList.toggle('interim', !final);
  clearTimeout(tile.clear);
  tile.clear = setTimeout(() => { place.textContent = ''; }, CAPTION_STAYS_MS);
  if (final && id !== OWN) $('spoken-captions').textContent = `${tile.name}: ${text}`;
}

function drawMeters() {
  for (const [id, {element, meter}] of tiles) {
    const level = meter?.level() ?? 0;
    if (!$('figures').hidden) panel.setLevel(id, level);
    element.querySelector('.meter span').style.scale = `${level} 1`;
    element.classList.toggle('speaking', level > 0.45);
  }
  if (previewMeter) $('preview-meter').firstElementChild.style.scale = `${previewMeter.level()} 1`;
  requestAnimationFrame(drawMeters);
}

// ---- joining and leaving --------------------------------------------------------------------------

function serverUrl() {
  const text = $('server').value.trim();
  if (!text) return `${location.protocol === 'https:' ? 'wss' : 'ws'}://${location.host}/relay`;
  return text.includes('://') ? text : `wss://${text}`;
}

function listen(to) {
  const on = (type, act) => to.addEventListener(type, ({detail}) => { if (visit === to) act(detail); });
  on('participant', ({id, name, owner}) => {
    if (tiles.has(id)) {
      nameTile(tiles.get(id), name);
      return;
    }
    makeTile(id, name, owner).element.querySelector('.state').textContent = 'listening';
    if (!owner) say(`${name} is here.`);
  });
  on('gone', ({id}) => {
    if (!tiles.get(id)?.owner) say(`${tiles.get(id)?.name ?? 'Somebody'} left.`);
    dropTile(id);
  });
  on('media', ({id, stream}) => setMedia(id, stream));
  on('unpublished', ({id}) => setMedia(id, null));
  on('caption', ({id, text, final}) => showCaption(id, text, final));
  on('trouble', ({text}) => complain(text));
  on('returning', ({broken}) => {
    if (broken) complain('The connection to the server broke. Trying to come back …');
    else { settle(); say('The connection is back.'); }
  });
  on('ended', ({text}) => { leave(); complain(text); });
}

async function join(event) {
  event.preventDefault();
  settle();
  $('join').disabled = true;
  $('join').textContent = 'Joining …';
  const name = $('name').value.trim();
  const room = $('room').value.trim();
  localStorage.setItem('name', name);
  own ??= await openDevices();
  const iceServers = JSON.parse(link.get('ice') ?? '[]');
  const coming = new RoomVisit({url: serverUrl(), room, token: $('token').value, name, iceServers});
  visit = coming;
  listen(coming);
  try {
    await coming.join(own);
    if (visit === coming) enter(name, room);
  } catch (error) {
    leave();
    complain(error.message);
  } finally {
    $('join').disabled = false;
    $('join').textContent = 'Join';
  }
}

function enter(name, room) {
  previewMeter?.close();
  previewMeter = null;
  const tile = makeTile(OWN, name);
  $('tiles').prepend(tile.element);
  tile.element.classList.add('own');
  tile.element.querySelector('video').muted = true;
  setMedia(OWN, own);
  tile.element.querySelector('.state').textContent = 'you';
  for (const track of own?.getTracks() ?? []) {
    const device = track.kind === 'audio' ? 'microphone' : 'camera';
    track.onended = () => complain(`Your ${device} has stopped. Leave and join again to use another.`);
  }
  document.body.classList.add('inside');
  $('lobby').hidden = true;
  $('stage').hidden = $('bar').hidden = false;
  $('room-name').textContent = room;
  $('toggle-microphone').disabled = !own?.getAudioTracks().length;
  $('toggle-camera').disabled = !own?.getVideoTracks().length;
  for (const id of ['toggle-microphone', 'toggle-camera']) $(id).setAttribute('aria-pressed', 'false');
  document.title = `${room} · Tavrin media relay`;
  countPresence();
  $('caption').focus();
  say(`You are in the room ${room}.`);
}

function leave() {
  visit?.leave();
  visit = null;
  closeDevices();
  for (const id of [...tiles.keys()]) dropTile(id);
  document.body.classList.remove('inside');
  $('stage').hidden = $('bar').hidden = $('preview').hidden = true;
  $('lobby').hidden = false;
  $('room-name').textContent = $('presence').textContent = '';
  document.title = 'Room · Tavrin media relay';
  $('name').focus();
}

// ---- the bar --------------------------------------------------------------------------------------

function toggleTracks(button, tracks, what) {
  const off = button.getAttribute('aria-pressed') !== 'true';
  button.setAttribute('aria-pressed', String(off));
  for (const track of tracks) track.enabled = !off;
  say(`Your ${what} is ${off ? 'off' : 'on'}.`);
}

let typed = 0;

function sendCaption(final) {
  const text = $('caption').value.trim();
  clearTimeout(typed);
  if (!text || !visit) return;
  if (!visit.caption(text, final)) {
    if (final) {
      complain('The caption could not be sent: the way to the others is not open yet. Please try again.');
    }
    return;
  }
  showCaption(OWN, text, final);
  if (final) $('caption').value = '';
}

async function toggleFigures() {
  const open = $('figures').hidden;
  $('figures').hidden = !open;
  $('toggle-figures').setAttribute('aria-expanded', String(open));
  document.body.classList.toggle('with-figures', open);
  if (!open) return;
  await showFigures();
  $('figures').focus({preventScroll: true});
  $('figures').scrollIntoView({block: 'nearest'});
}

function allConnections() {
  if (!visit) return [];
  return [...(visit.publishing ? [[OWN, 'You, as sent', visit.publishing]] : []), ...visit.connections()];
}

async function showFigures() {
  if (visit && !$('figures').hidden) await panel.show(allConnections());
}

// For the developer's console and tests: {id: {name, sound, picture}}.
globalThis.roomFigures = () => panel.collect(allConnections());

// ---- wiring ---------------------------------------------------------------------------------------

$('name').value = link.get('name') ?? localStorage.getItem('name') ?? '';
$('room').value = link.get('room') ?? 'lobby';
$('token').value = link.get('token') ?? '';
$('server').value = link.get('server') ?? '';
$('server-details').open = !link.get('token');
$('room-name').textContent = link.get('room') ?? '';
$('join-form').addEventListener('submit', join);
// A required field in the folded part would block the form silently.
$('room').addEventListener('invalid', () => { $('server-details').open = true; });
$('try-devices').addEventListener('click', tryDevices);
for (const id of ['camera-choice', 'microphone-choice']) $(id).addEventListener('change', tryDevices);
for (const id of ['use-camera', 'use-microphone']) {
  $(id).addEventListener('change', () => { if (own) tryDevices(); });
}
$('problem-close').addEventListener('click', settle);
$('leave').addEventListener('click', leave);
$('toggle-microphone').addEventListener('click', ({currentTarget}) => {
  toggleTracks(currentTarget, own?.getAudioTracks() ?? [], 'microphone');
});
$('toggle-camera').addEventListener('click', ({currentTarget}) => {
  toggleTracks(currentTarget, own?.getVideoTracks() ?? [], 'camera');
});
$('toggle-figures').addEventListener('click', toggleFigures);
$('figures-copy').addEventListener('click', async () => {
  try {
    await navigator.clipboard.writeText(JSON.stringify(panel.last, null, 2));
    say('The figures are in the clipboard.');
  } catch {
    complain('The browser did not let us write to the clipboard.');
  }
});
$('caption-form').addEventListener('submit', (event) => { event.preventDefault(); sendCaption(true); });
$('caption').addEventListener('input', () => {
  clearTimeout(typed);
  typed = setTimeout(() => sendCaption(false), 300); // what is being typed, a few times a second
});
document.addEventListener('keydown', (event) => {
  if (event.key === 'Escape' && !$('figures').hidden) {
    toggleFigures();
    $('toggle-figures').focus();
  }
});
addEventListener('pagehide', () => visit?.leave());
setInterval(showFigures, 1000);
drawMeters();
