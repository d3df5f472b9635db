// The viewer's page. The server draws every picture with the library; this script only
// places the pictures, asks for the region in view, and sends what the user did.
'use strict';

const $ = (id) => document.getElementById(id);

const state = {
  info: null,
  live: false,
  image: 0,            // the image number of a series
  frameWidth: 0,
  frameHeight: 0,
  scale: 1,            // frame pixels per screen pixel
  left: 0,             // frame coordinates of the canvas' top-left corner
  top: 0,
  limits: null,        // the limits in use: {low, high, logHigh}
  sequence: 0,         // live: the last image drawn
  series: -1,
  drawnFrames: 0,      // live: images drawn
  renders: 0,          // pictures drawn, for whoever waits for one
  busy: false,
  dirty: false,
  playing: false,
  lastRegion: null,
};
window.viewer = state;

const canvas = $('frame');
const marks = $('marks');
const context = canvas.getContext('2d');

function query(params) {
  return Object.entries(params).map(([k, v]) => k + '=' + encodeURIComponent(v)).join('&');
}

function imageParam() {
  return state.live ? 'live' : String(state.image);
}

function colourParams() {
  const p = { table: $('table').value, reverse: $('reverse').checked ? 1 : 0, sat: $('sat').checked ? 1 : 0 };
  if (!$('auto').checked && state.limits) {
    p.low = state.limits.low;
    p.high = state.limits.high;
    p.loghigh = state.limits.logHigh;
  }
  return p;
}

function fit() {
  if (!state.frameWidth) return;
  const w = canvas.width, h = canvas.height;
  state.scale = Math.max(state.frameWidth / w, state.frameHeight / h);
  state.left = (state.frameWidth - w * state.scale) / 2;
  state.top = (state.frameHeight - h * state.scale) / 2;
}

function resize() {
  const view = $('view');
  for (const c of [canvas, marks]) {
    c.width = Math.max(1, view.clientWidth);
    c.height = Math.max(1, view.clientHeight);
  }
  fit();
  requestRender();
}

// The region in view, in whole frame pixels, and the screen size it takes.
function visibleRegion() {
  const x0 = Math.max(0, Math.floor(state.left));
  const y0 = Math.max(0, Math.floor(state.top));
  const x1 = Math.min(state.frameWidth, Math.ceil(state.left + canvas.width * state.scale));
  const y1 = Math.min(state.frameHeight, Math.ceil(state.top + canvas.height * state.scale));
  if (x1 <= x0 || y1 <= y0) return null;
  const sw = Math.min(8192, Math.max(1, Math.ceil((x1 - x0) / state.scale)));
  const sh = Math.min(8192, Math.max(1, Math.ceil((y1 - y0) / state.scale)));
  return { x: x0, y: y0, w: x1 - x0, h: y1 - y0, sw, sh };
}

let liveAbort = null;

function requestRender() {
  state.dirty = true;
  if (liveAbort) liveAbort.abort();  // a waiting live request gives way to the new view
  if (!state.busy) renderNext();
}

async function renderNext() {
  if (state.busy) return;
  state.busy = true;
  try {
    while (true) {
      const viewChanged = state.dirty;
      state.dirty = false;
      if (!state.live && !viewChanged) break;
      const params = Object.assign({ image: imageParam() }, colourParams());
      const region = state.frameWidth ? visibleRegion() : null;
      if (region) Object.assign(params, region);
      else if (state.frameWidth) { clearCanvas(); if (!state.live) break; }
      else { params.sw = canvas.width; params.sh = canvas.height; }
      if (state.live && !viewChanged) { params.after = state.sequence; params.wait = 1; }
      const controller = new AbortController();
      if (state.live && !viewChanged) liveAbort = controller;
      let response;
      try {
        response = await fetch('/api/render?' + query(params), { signal: controller.signal });
      } catch (e) {
        if (e.name === 'AbortError') continue;
        throw e;
      } finally {
        liveAbort = null;
      }
      if (response.status === 204) continue;  // no newer live image yet
      if (!response.ok) { showMessage(await response.text()); if (state.live) await sleep(500); else break; continue; }
      showMessage('');
      await drawResponse(response);
      if (state.playing) await sleep(120);
    }
  } catch (e) {
    showMessage(String(e));
  } finally {
    state.busy = false;
  }
  if (state.dirty || state.live) setTimeout(renderNext, state.live ? 200 : 0);
}

async function drawResponse(response) {
  const h = response.headers;
  const [fw, fh] = h.get('X-Frame-Size').split(',').map(Number);
  const [rx, ry, rw, rh] = h.get('X-Region').split(',').map(Number);
  const [low, high, logHigh] = h.get('X-Limits').split(',').map(Number);
  const imageNumber = Number(h.get('X-Image'));
  const sequence = Number(h.get('X-Sequence'));
  const series = Number(h.get('X-Series'));
  const bitmap = await createImageBitmap(await response.blob());
  const sizeChanged = fw !== state.frameWidth || fh !== state.frameHeight;
  if (sizeChanged) {
    state.frameWidth = fw;
    state.frameHeight = fh;
    fit();
    state.dirty = true;  // this picture was for the old size
  }
  if ($('auto').checked) setLimits({ low, high, logHigh });
  if (!sizeChanged) {
    clearCanvas();
    context.imageSmoothingEnabled = false;  // zoomed in, a frame pixel is a block
    context.drawImage(bitmap, (rx - state.left) / state.scale, (ry - state.top) / state.scale,
                      rw / state.scale, rh / state.scale);
    state.lastRegion = { x: rx, y: ry, w: rw, h: rh };
    state.renders++;
  }
  bitmap.close();
  if (state.live) {
    if (sequence !== state.sequence && !sizeChanged) state.drawnFrames++;
    state.sequence = sequence;
    state.image = imageNumber;
    $('imageNumber').textContent = '';
    if (series !== state.series) {
      state.series = series;
      loadHeader();
    } else {
      setHeaderImage(imageNumber);
    }
  }
  drawOverlay();
}

function clearCanvas() {
  context.clearRect(0, 0, canvas.width, canvas.height);
  marks.getContext('2d').clearRect(0, 0, marks.width, marks.height);
}

function sleep(ms) { return new Promise((resolve) => setTimeout(resolve, ms)); }

function showMessage(text) { $('message').textContent = text; }

// ---- contrast and colour bar ----

let legendKey = '';
function setLimits(limits) {
  state.limits = limits;
  const shown = (v) => Number(v.toPrecision(6));
  $('low').value = shown(limits.low);
  $('high').value = shown(limits.high);
  $('loghigh').value = shown(limits.logHigh);
  updateLegend();
}

async function updateLegend() {
  if (!state.limits) return;
  const p = { h: 256, w: 16, low: state.limits.low, high: state.limits.high, loghigh: state.limits.logHigh,
              table: $('table').value, reverse: $('reverse').checked ? 1 : 0 };
  const key = query(p);
  if (key === legendKey) return;
  legendKey = key;
  const response = await fetch('/api/legend?' + key);
  if (!response.ok) return;
  const legend = await response.json();
  $('legendImage').src = '/api/legend.png?' + key;
  const ticks = $('ticks');
  ticks.textContent = '';
  let lastTop = -Infinity;
  for (const [row, value] of legend.ticks) {
    const top = 1 + legend.rows - 1 - row;
    if (Math.abs(top - lastTop) < 12) continue;  // a label every 12 pixels at most
    lastTop = top;
    const d = document.createElement('div');
    d.style.top = top + 'px';
    d.textContent = Number(value.toPrecision(4));
    ticks.appendChild(d);
  }
}

function limitsChanged() {
  $('auto').checked = false;
  const low = Number($('low').value), high = Number($('high').value), logHigh = Number($('loghigh').value);
  if (![low, high, logHigh].every(Number.isFinite)) return;
  state.limits = { low, high, logHigh };
  updateLegend();
  requestRender();
}

// ---- series ----

function setImage(number) {
  if (state.live || !state.info) return;
  number = Math.min(state.info.last, Math.max(state.info.first, number));
  state.image = number;
  $('slider').value = number;
  $('imageNumber').textContent = 'image ' + number + ' of ' + state.info.first + '..' + state.info.last;
  loadHeader();
  requestRender();
}

function togglePlay() {
  state.playing = !state.playing;
  $('play').textContent = state.playing ? 'Stop' : 'Play';
  if (state.playing) playStep();
}

async function playStep() {
  while (state.playing) {
    const next = state.image >= state.info.last ? state.info.first : state.image + 1;
    setImage(next);
    const start = performance.now();
    while ((state.busy || state.dirty) && performance.now() - start < 5000) await sleep(20);
    await sleep(150);
  }
}

// ---- header and pointer ----

let headerRequest = 0;
async function loadHeader() {
  const mine = ++headerRequest;
  const response = await fetch('/api/header?' + query({ image: imageParam() }));
  if (!response.ok || response.status === 204 || mine !== headerRequest) return;
  const header = await response.json();
  const table = $('header');
  table.textContent = '';
  const row = (name, value, unit) => {
    const tr = table.insertRow();
    tr.insertCell().textContent = name;
    const cell = tr.insertCell();
    cell.textContent = value + (unit ? ' ' + unit : '');
    return cell;
  };
  if (state.live) row('series', header.series, '');
  row('image', header.image, '').id = 'headerImage';
  row('size', header.width + ' x ' + header.height, 'pixels');
  row('pixel type', header.type, '');
  for (const [name, value, unit] of header.items) row(name, value, unit);
}

function setHeaderImage(number) {
  const cell = $('headerImage');
  if (cell) cell.textContent = number;
}

function framePoint(event) {
  const rect = canvas.getBoundingClientRect();
  const sx = event.clientX - rect.left, sy = event.clientY - rect.top;
  return { sx, sy, x: state.left + sx * state.scale, y: state.top + sy * state.scale };
}

let pointerBusy = false, pointerNext = null;
async function readPixel(x, y) {
  if (pointerBusy) { pointerNext = [x, y]; return; }
  pointerBusy = true;
  try {
    const response = await fetch('/api/pixel?' + query({ image: imageParam(), x, y }));
    if (response.ok && response.status !== 204) {
      const p = await response.json();
      $('readout').textContent = 'x ' + p.x + '  y ' + p.y + '  value ' + p.value + (p.mask ? '  (' + p.mask + ')' : '');
    }
  } finally {
    pointerBusy = false;
  }
  if (pointerNext) { const [nx, ny] = pointerNext; pointerNext = null; readPixel(nx, ny); }
}

// ---- overlay ----

let overlayRequest = 0;
async function drawOverlay() {
  const g = marks.getContext('2d');
  const mine = ++overlayRequest;
  if (!$('overlay').checked || !state.lastRegion) { g.clearRect(0, 0, marks.width, marks.height); return; }
  const threshold = Number($('threshold').value);
  if (!Number.isFinite(threshold)) return;
  const r = state.lastRegion;
  const response = await fetch('/api/overlay?' + query({ image: imageParam(), threshold, radius: 0.75,
                                                          x: r.x, y: r.y, w: r.w, h: r.h }));
  if (!response.ok || response.status === 204 || mine !== overlayRequest) return;
  const overlay = await response.json();
  g.clearRect(0, 0, marks.width, marks.height);
  g.lineWidth = 1.5;
  for (const [x, y, rx, ry, colour] of overlay.circles) {
    g.strokeStyle = colour;
    g.beginPath();
    g.ellipse((x - state.left) / state.scale, (y - state.top) / state.scale,
              Math.max(6, rx / state.scale), Math.max(6, ry / state.scale), 0, 0, 2 * Math.PI);
    g.stroke();
  }
}

// ---- live counts ----

let lastCounts = null;
async function pollLive() {
  try {
    const response = await fetch('/api/live');
    if (response.ok) {
      const c = await response.json();
      const now = performance.now();
      $('received').textContent = c.received;
      $('displayed').textContent = c.displayed;
      $('skipped').textContent = c.skipped;
      if (lastCounts) {
        const seconds = (now - lastCounts.time) / 1000;
        $('receivedRate').textContent = ((c.received - lastCounts.received) / seconds).toFixed(1) + '/s';
        $('displayedRate').textContent = ((c.displayed - lastCounts.displayed) / seconds).toFixed(1) + '/s';
      }
      lastCounts = { time: now, received: c.received, displayed: c.displayed };
      $('liveSeries').textContent = c.received ? 'series ' + c.series + ': ' + c.seriesImages + ' images' +
                                    (c.seriesEnded ? ', ended' : '') : 'waiting for a series';
      $('liveError').textContent = c.errors ? c.errors + ' bad messages: ' + c.lastError : '';
      state.counts = c;
    }
  } catch (e) { /* the next poll tries again */ }
  setTimeout(pollLive, 500);
}

// ---- events ----

function wireEvents() {
  // The view's own size, which also changes when the bars around it do.
  new ResizeObserver(resize).observe($('view'));
  const view = $('view');
  view.addEventListener('wheel', (event) => {
    event.preventDefault();
    if (!state.frameWidth) return;
    const p = framePoint(event);
    const fitScale = Math.max(state.frameWidth / canvas.width, state.frameHeight / canvas.height);
    const factor = event.deltaY > 0 ? 1.25 : 0.8;
    state.scale = Math.min(Math.max(fitScale * 4, 1), Math.max(1 / 64, state.scale * factor));
    state.left = p.x - p.sx * state.scale;
    state.top = p.y - p.sy * state.scale;
    requestRender();
  }, { passive: false });
  let drag = null;
  view.addEventListener('mousedown', (event) => { drag = { x: event.clientX, y: event.clientY }; });
  window.addEventListener('mouseup', () => { drag = null; });
  view.addEventListener('mousemove', (event) => {
    if (drag) {
      state.left -= (event.clientX - drag.x) * state.scale;
      state.top -= (event.clientY - drag.y) * state.scale;
      drag = { x: event.clientX, y: event.clientY };
      requestRender();
    }
    const p = framePoint(event);
    const x = Math.floor(p.x), y = Math.floor(p.y);
    if (x >= 0 && y >= 0 && x < state.frameWidth && y < state.frameHeight) readPixel(x, y);
    else $('readout').textContent = '\u00a0';
  });
  $('auto').addEventListener('change', () => requestRender());
  for (const id of ['low', 'high', 'loghigh']) $(id).addEventListener('change', limitsChanged);
  for (const id of ['table', 'reverse']) $(id).addEventListener('change', () => { updateLegend(); requestRender(); });
  $('sat').addEventListener('change', requestRender);
  $('overlay').addEventListener('change', drawOverlay);
  $('threshold').addEventListener('change', drawOverlay);
  $('fit').addEventListener('click', () => { fit(); requestRender(); });
  $('slider').addEventListener('input', () => setImage(Number($('slider').value)));
  $('prev').addEventListener('click', () => setImage(state.image - 1));
  $('next').addEventListener('click', () => setImage(state.image + 1));
  $('play').addEventListener('click', togglePlay);
  document.addEventListener('keydown', (event) => {
    if (event.target.tagName === 'INPUT' && event.target.type !== 'range') return;
    if (event.key === 'ArrowLeft' || event.key === 'PageUp') setImage(state.image - 1);
    else if (event.key === 'ArrowRight' || event.key === 'PageDown') setImage(state.image + 1);
    else if (event.key === 'Home' && state.info) setImage(state.info.first);
    else if (event.key === 'End' && state.info) setImage(state.info.last);
    else if (event.key === ' ' && !state.live) togglePlay();
    else if (event.key === 'f' || event.key === 'F') { fit(); requestRender(); }
    else return;
    event.preventDefault();
  });
}

async function start() {
  const info = await (await fetch('/api/info')).json();
  state.info = info;
  state.live = info.mode === 'live';
  $('title').textContent = info.target;
  document.title = 'norvexa view: ' + info.target;
  if (!state.live) state.image = info.first;
  wireEvents();  // its first size report draws the first picture
  if (state.live) {
    $('live').hidden = false;
    pollLive();
    requestRender();
  } else {
    $('seriesControls').hidden = false;
    $('slider').min = info.first;
    $('slider').max = info.last;
    setImage(info.first);
  }
}

start();
