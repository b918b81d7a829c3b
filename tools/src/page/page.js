'use strict';
// What the self-test has to say; every error of the page is among it.
const failures = [];
if (location.hash === '#selftest') {
  window.addEventListener('error', (event) => failures.push('error: ' + event.message));
  console.error = (...words) => failures.push('console: ' + words.join(' '));
}

// What a row of the record is, by position.
const TIME = 0, KIND = 1, FROM = 2, TO = 3, ID = 4, METHOD = 5, LATENCY = 6, FLAGS = 7, TASK = 8, PAYLOAD = 9;
const ERROR = 1, UNANSWERED = 2;
const REQUEST = 0, RESPONSE = 1, NOTIFICATION = 2;
const KINDS = ['request', 'response', 'notification', 'message', 'start', 'end', 'connection', 'fault'];
const HEAD = 34;       // pixels of the lanes' names
const AXIS = 90;       // pixels of the times
const LONGEST_BAR = 1e7;  // pixels; browsers scroll no further than a few tens of millions

const byId = (id) => document.getElementById(id);
const rows = JSON.parse(byId('rows').textContent);
const facts = JSON.parse(byId('lanes').textContent);
const lanes = facts.names;
const last = rows.length ? rows[rows.length - 1][TIME] : 0;
const canvas = byId('canvas'), view = byId('view'), bar = byId('bar'), pen = canvas.getContext('2d');
// Of a request its answer, and the other way round.
const partners = new Map();
let shown = [];         // numbers of the rows that the filters let through
let picked = -1;        // the number of a row
let top_ = 0, scale = 1;  // microseconds at the upper edge, and for each pixel
let places = [];        // what was drawn where, for clicks
let drawn = 0;

function pair() {
  const open = new Map();
  rows.forEach((row, number) => {
    const key = row[TASK] + '\n' + row[ID];
    if (row[KIND] === REQUEST) {
      open.set(key, number);
    } else if (row[KIND] === RESPONSE && open.has(key)) {
      partners.set(number, open.get(key));
      partners.set(open.get(key), number);
      open.delete(key);
    }
  });
  for (const key of facts.unanswered) {
    if (open.has(key)) { rows[open.get(key)][FLAGS] |= UNANSWERED; }
  }
}

// ---- Filters ----

function fillChoices(select, all, values) {
  select.replaceChildren(new Option(all, ''), ...[...values].sort().map((value) => new Option(value)));
}

function latencyOf(number) {
  const row = rows[number];
  if (row[KIND] !== REQUEST) { return row[LATENCY]; }
  return partners.has(number) ? rows[partners.get(number)][LATENCY] : -1;
}

function isError(number) {
  const partner = partners.get(number);
  return (rows[number][FLAGS] & (ERROR | UNANSWERED)) !== 0 ||
         (partner !== undefined && (rows[partner][FLAGS] & ERROR) !== 0);
}

function applyFilters() {
  const text = byId('search').value.toLowerCase();
  const task = byId('task').value, method = byId('method').value;
  const errors = byId('errors').checked;
  const slower = byId('slower').value === '' ? -1 : Number(byId('slower').value) * 1000;
  shown = [];
  rows.forEach((row, number) => {
    if ((task === '' || row[TASK] === task) && (method === '' || row[METHOD] === method) &&
        (!errors || isError(number)) && (slower < 0 || latencyOf(number) > slower) &&
        (text === '' || row[PAYLOAD].toLowerCase().includes(text) || row[ID].includes(text) ||
         row[METHOD].toLowerCase().includes(text))) {
      shown.push(number);
    }
  });
  byId('count').textContent = shown.length + ' of ' + rows.length + ' messages';
  // The first that fits shall be in view.
  if (shown.length && (rows[shown[0]][TIME] > top_ + height() * scale ||
                       rows[shown[shown.length - 1]][TIME] < top_)) {
    top_ = rows[shown[0]][TIME] - 20 * scale;
  }
  draw();
}

// ---- Time and place ----

const height = () => Math.max(1, view.clientHeight - HEAD);
const yOf = (time) => HEAD + (time - top_) / scale;

function laneX(lane) {
  const width = (view.clientWidth - AXIS - 20) / Math.max(1, lanes.length);
  return AXIS + width * (lane + 0.5);
}

function fit() {
  scale = Math.max(1, last * 1.05) / height();
  top_ = -20 * scale;
  draw();
}

function zoom(factor, y = HEAD + height() / 2) {
  const time = top_ + (y - HEAD) * scale;
  scale = Math.min(Math.max(scale * factor, 0.01), Math.max(1, last * 1.05) / height());
  top_ = time - (y - HEAD) * scale;
  draw();
}

function scrollBy(pixels) {
  top_ += pixels * scale;
  draw();
}

function keepInside() {
  const most = Math.max(last - height() * scale + 20 * scale, -20 * scale);
  top_ = Math.min(Math.max(top_, -20 * scale), most);
}

// The first of what is shown that is not before the time.
function firstAt(time) {
  let low = 0, high = shown.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (rows[shown[middle]][TIME] < time) { low = middle + 1; } else { high = middle; }
  }
  return low;
}

// ---- Drawing ----

function colours() {
  const style = getComputedStyle(document.documentElement);
  return new Proxy({}, { get: (_, name) => style.getPropertyValue('--' + name) });
}

function timeText(us) {
  return us >= 1e6 || scale > 1e3 ? (us / 1e6).toFixed(scale < 10 ? 6 : 3) + ' s' : (us / 1e3).toFixed(3) + ' ms';
}

function slowLimit() {
  return byId('slower').value === '' ? 50000 : Number(byId('slower').value) * 1000;
}

function colourOf(number, colour) {
  const row = rows[number];
  if (isError(number)) { return colour.bad; }
  if (latencyOf(number) > slowLimit()) { return colour.slow; }
  return row[KIND] === REQUEST ? colour.request : row[KIND] === RESPONSE ? colour.answer : colour.note;
}

function labelOf(number) {
  const row = rows[number];
  if (row[KIND] > 3) { return KINDS[row[KIND]] + ' ' + row[PAYLOAD].slice(0, 60); }
  const took = row[LATENCY] >= 0 ? ' ' + (row[LATENCY] / 1000).toFixed(2) + ' ms' : '';
  return row[METHOD] + took + ' ' + row[PAYLOAD].slice(0, 60);
}

// As much of the text as fits, and three dots for the rest.
function clipped(text, width) {
  if (pen.measureText(text).width <= width) { return text; }
  const fits = Math.floor(text.length * width / pen.measureText(text).width);
  return text.slice(0, Math.max(0, fits - 2)) + '\u2026';
}

function drawLanes(colour) {
  pen.fillStyle = colour.panel;
  pen.fillRect(0, 0, view.clientWidth, HEAD);
  pen.textAlign = 'center';
  lanes.forEach((name, lane) => {
    pen.fillStyle = colour.text;
    pen.fillText(name, laneX(lane), HEAD / 2);
    pen.fillStyle = colour.line;
    pen.fillRect(laneX(lane) - 0.5, HEAD, 1, height());
  });
  pen.textAlign = 'right';
  pen.fillStyle = colour.soft;
  for (let y = HEAD + 20; y < HEAD + height(); y += 80) {
    pen.fillText(timeText(top_ + (y - HEAD) * scale), AXIS - 20, y);
  }
}

function drawArrow(number, y, colour, withLabel) {
  const row = rows[number];
  const from = laneX(row[FROM]), to = laneX(row[TO]);
  const way = Math.sign(to - from) || 1;
  pen.strokeStyle = pen.fillStyle = colourOf(number, colour);
  pen.setLineDash(row[KIND] === RESPONSE ? [5, 3] : []);
  pen.lineWidth = number === picked ? 3 : 1;
  pen.beginPath();
  pen.moveTo(from, y);
  pen.lineTo(to, y);
  pen.stroke();
  pen.setLineDash([]);
  pen.beginPath();
  pen.moveTo(to, y);
  pen.lineTo(to - way * 7, y - 3);
  pen.lineTo(to - way * 7, y + 3);
  pen.fill();
  if (withLabel) {
    pen.textAlign = 'center';
    pen.fillText(clipped(labelOf(number), Math.abs(to - from) - 16), (from + to) / 2, y - 8);
  }
}

// Draws what is in view, and of what falls on one row of pixels the first, or one that is picked.
function draw() {
  keepInside();
  const ratio = window.devicePixelRatio || 1;
  canvas.width = view.clientWidth * ratio;
  canvas.height = view.clientHeight * ratio;
  pen.scale(ratio, ratio);
  pen.font = '12px system-ui, sans-serif';
  pen.textBaseline = 'middle';
  const colour = colours();
  const end = top_ + height() * scale;
  places = [];
  const taken = new Set();
  let lastLabel = -Infinity;
  for (let at = firstAt(top_); at < shown.length && rows[shown[at]][TIME] <= end; at++) {
    const number = shown[at], row = rows[number], y = yOf(row[TIME]);
    const place = Math.round(y) * 4096 + row[FROM] * 64 + row[TO];
    if (taken.has(place) && number !== picked) { continue; }
    taken.add(place);
    const withLabel = y - lastLabel >= 16 || number === picked;
    lastLabel = withLabel ? y : lastLabel;
    drawArrow(number, y, colour, withLabel);
    places.push({ number, y });
  }
  drawn = places.length;
  drawLanes(colour);
  placeBar();
}

function placeBar() {
  const whole = (last + 40 * scale) / scale;
  byId('length').style.height = Math.min(whole + HEAD, LONGEST_BAR) + 'px';
  const most = bar.scrollHeight - bar.clientHeight;
  const share = (top_ + 20 * scale) / Math.max(1, last + 40 * scale - height() * scale);
  bar.onscroll = null;
  bar.scrollTop = share * most;
  requestAnimationFrame(() => { bar.onscroll = onBar; });
}

function onBar() {
  const most = Math.max(1, bar.scrollHeight - bar.clientHeight);
  top_ = (bar.scrollTop / most) * (last + 40 * scale - height() * scale) - 20 * scale;
  draw();
}

// ---- What a message carries ----

const PLAIN = { string: 'text', boolean: 'bool' };
const TYPED = ['int32', 'int64', 'double', 'bytes', 'int32s', 'int64s', 'doubles', 'floats', 'map'];

// The kind and the content of a value in typed JSON.
function kindOf(value) {
  if (value === null) { return ['null', null]; }
  if (Array.isArray(value)) { return ['list', value]; }
  if (typeof value !== 'object') { return [PLAIN[typeof value] || 'number', value]; }
  const keys = Object.keys(value);
  return keys.length === 1 && TYPED.includes(keys[0]) ? [keys[0], value[keys[0]]] : ['map', value];
}

function element(name, className, text) {
  const made = document.createElement(name);
  made.className = className;
  made.textContent = text;
  return made;
}

function treeOf(key, value) {
  const [kind, content] = kindOf(value);
  const holds = content !== null && typeof content === 'object';
  const node = document.createElement(holds ? 'details' : 'div');
  const line = holds ? node.appendChild(document.createElement('summary')) : node;
  line.append(element('span', 'key', key));
  if (!holds) {
    node.className = 'leaf';
    line.append(': ' + (kind === 'text' ? JSON.stringify(content) : String(content)));
  }
  line.append(element('span', 'kind', holds ? kind + ', ' + Object.keys(content).length : kind));
  if (holds) {
    node.open = Object.keys(content).length <= 50;
    const plain = kind.endsWith('s') && kind !== 'bytes';
    for (const [name, member] of Object.entries(content)) {
      node.append(plain ? element('div', 'leaf', name + ': ' + member) : treeOf(name, member));
    }
  }
  return node;
}

function factsOf(number) {
  const row = rows[number], partner = partners.get(number);
  const told = [['time', timeText(row[TIME])], ['from', lanes[row[FROM]]], ['to', lanes[row[TO]]],
                 ['kind', KINDS[row[KIND]]], ['id', row[ID]]];
  if (latencyOf(number) >= 0) { told.push(['answered in', (latencyOf(number) / 1000).toFixed(3) + ' ms']); }
  if (row[FLAGS] & UNANSWERED) { told.push(['answer', 'never']); }
  return partner === undefined ? told : [...told, ['with', KINDS[rows[partner][KIND]]]];
}

function pick(number) {
  picked = number;
  const side = byId('side');
  side.replaceChildren();
  if (number < 0) { return; }
  const row = rows[number];
  side.append(element('h2', isError(number) ? 'bad' : '', row[METHOD] || KINDS[row[KIND]]));
  const list = side.appendChild(document.createElement('dl'));
  for (const [name, value] of factsOf(number)) {
    if (value !== '') { list.append(element('dt', '', name), element('dd', '', value)); }
  }
  const partner = partners.get(number);
  for (const each of partner === undefined ? [number] : [number, partner].sort((a, b) => a - b)) {
    const kind = KINDS[rows[each][KIND]];
    if (rows[each][KIND] > 3) { side.append(element('p', '', rows[each][PAYLOAD])); continue; }
    side.append(treeOf(kind, JSON.parse(rows[each][PAYLOAD] || 'null')));
  }
}

function pickAt(y) {
  let best = null;
  for (const place of places) {
    if (best === null || Math.abs(place.y - y) < Math.abs(best.y - y)) { best = place; }
  }
  if (best !== null && Math.abs(best.y - y) < 12) { pick(best.number); draw(); }
}

function step(by) {
  const at = Math.min(Math.max(shown.indexOf(picked) + by, 0), shown.length - 1);
  if (at < 0) { return; }
  pick(shown[at]);
  const time = rows[picked][TIME];
  if (time < top_ || time > top_ + height() * scale) { top_ = time - height() * scale / 2; }
  draw();
}

// ---- Wiring ----

for (const id of ['search', 'slower']) { byId(id).addEventListener('input', applyFilters); }
for (const id of ['task', 'method', 'errors']) { byId(id).addEventListener('change', applyFilters); }
byId('in').onclick = () => zoom(0.5);
byId('out').onclick = () => zoom(2);
byId('fit').onclick = fit;
byId('theme').onclick = () => {
  const dark = document.documentElement.classList.contains('dark') ||
      (!document.documentElement.classList.contains('light') && matchMedia('(prefers-color-scheme: dark)').matches);
  document.documentElement.className = dark ? 'light' : 'dark';
  draw();
};
canvas.addEventListener('click', (event) => pickAt(event.offsetY));
view.addEventListener('wheel', (event) => {
  event.preventDefault();
  if (event.ctrlKey) { zoom(event.deltaY > 0 ? 1.25 : 0.8, event.offsetY); } else { scrollBy(event.deltaY); }
}, { passive: false });
window.addEventListener('resize', draw);
document.addEventListener('keydown', (event) => {
  if (event.target.matches('input, select')) { return; }
  const keys = { '+': () => zoom(0.5), '-': () => zoom(2), '0': fit, '/': () => byId('search').focus(),
                 ArrowDown: () => step(1), ArrowUp: () => step(-1) };
  if (keys[event.key]) { event.preventDefault(); keys[event.key](); }
});

pair();
fillChoices(byId('task'), 'all tasks', new Set(rows.map((row) => row[TASK])));
fillChoices(byId('method'), 'all methods', new Set(rows.map((row) => row[METHOD]).filter(Boolean)));
fit();
applyFilters();
if (rows.length > 400) {
  scale = Math.max(1, last * 1.05) / height() / Math.ceil(rows.length / 200);
  top_ = 0;
  draw();
}
if (location.hash === '#selftest') { setTimeout(selfTest, 0); }
