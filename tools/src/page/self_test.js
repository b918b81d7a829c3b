// Opened with #selftest, the page drives itself as a person does, and says in its title how it went.
function check(truth, what) {
  if (!truth) { failures.push(what); }
}

function enter(id, value, event) {
  byId(id).value = value;
  byId(id).dispatchEvent(new Event(event));
}

// Whether there is a line where a request goes: the canvas is clear elsewhere.
function isPainted() {
  const { number, y } = places.find((place) => rows[place.number][KIND] === REQUEST);
  const ratio = window.devicePixelRatio || 1;
  const middle = (laneX(rows[number][FROM]) * 2 + laneX(rows[number][TO])) / 3;
  return pen.getImageData(middle * ratio, (y - 2) * ratio, 1, 4 * ratio).data.some((byte) => byte !== 0);
}

function testSearch() {
  const number = rows.findIndex((row) => row[KIND] === REQUEST);
  enter('search', rows[number][ID], 'input');
  check(shown.length >= 1 && shown.length <= 3, 'search for an id shows ' + shown.length);
  check(shown.includes(number), 'search finds the request');
  enter('search', 'no such text anywhere', 'input');
  check(shown.length === 0 && drawn === 0, 'search for nothing shows something');
  enter('search', '', 'input');
  check(shown.length === rows.length, 'an empty search shows all');
}

function testFilters() {
  const method = rows.find((row) => row[KIND] === REQUEST)[METHOD];
  enter('method', method, 'change');
  check(shown.every((number) => rows[number][METHOD] === method), 'the filter by method leaks');
  enter('method', '', 'change');
  const task = rows[0][TASK];
  enter('task', task, 'change');
  check(shown.length > 0 && shown.every((number) => rows[number][TASK] === task), 'the filter by task leaks');
  enter('task', '', 'change');
  byId('errors').checked = true;
  byId('errors').dispatchEvent(new Event('change'));
  check(shown.every(isError), 'the filter by errors leaks');
  byId('errors').checked = false;
  byId('errors').dispatchEvent(new Event('change'));
  enter('slower', '0.001', 'input');
  check(shown.every((number) => latencyOf(number) > 1), 'the filter by time leaks');
  enter('slower', '', 'input');
}

function testClick() {
  pick(-1);
  check(places.length > 0, 'nothing is drawn');
  const place = places[Math.floor(places.length / 2)];
  const box = canvas.getBoundingClientRect();
  canvas.dispatchEvent(new MouseEvent('click', { clientX: box.left + laneX(0), clientY: box.top + place.y }));
  check(picked >= 0, 'a click picks nothing');
  check(byId('side').querySelector('h2') !== null, 'a click shows nothing');
  pick(rows.findIndex((row) => row[KIND] === REQUEST));
  check(byId('side').querySelector('.kind') !== null, 'the payload has no kinds');
}

function testZoom() {
  fit();
  const before = scale;
  byId('in').click();
  check(scale < before, 'zoom in does nothing');
  byId('out').click();
  check(Math.abs(scale - before) < before / 1000, 'zoom out does not undo zoom in');
  zoom(0.1);
  const top = top_;
  view.dispatchEvent(new WheelEvent('wheel', { deltaY: 40, cancelable: true }));
  check(top_ > top, 'the wheel does not scroll');
  fit();
}

function testTheme() {
  const before = getComputedStyle(document.body).backgroundColor;
  byId('theme').click();
  check(getComputedStyle(document.body).backgroundColor !== before, 'the theme does not change');
  byId('theme').click();
  check(getComputedStyle(document.body).backgroundColor === before, 'the theme does not change back');
}

function selfTest() {
  const begin = performance.now();
  try {
    check(byId('count').textContent.startsWith(rows.length + ' of '), 'not all are shown at first');
    check(isPainted(), 'a request has no line');
    [testSearch, testFilters, testClick, testZoom, testTheme].forEach((test) => test());
    for (let i = 0; i < 20; i++) { zoom(i < 10 ? 0.5 : 2); }
    check(places.length <= 8 * height(), 'more is drawn than is in view');
  } catch (error) {
    failures.push('exception: ' + error.message);
  }
  const took = Math.round(performance.now() - begin);
  document.title = failures.length ? 'self-test failed: ' + failures.join('; ')
                                   : 'self-test passed: ' + rows.length + ' messages in ' + took + ' ms';
}
