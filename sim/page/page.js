// The simulator's live page. One event stream brings everything it shows: a hello with
// the whole state, then each change. A lost stream is opened again every second, so a
// simulator that restarts is picked up without a reload.
'use strict';

const kLogRows = 1000;  // as many as the simulator keeps
const $ = (id) => document.getElementById(id);

// An element with its attributes and children (strings become text, never HTML).
function el(tag, attributes = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (value !== null && value !== undefined) node.setAttribute(name, value);
  }
  node.append(...children.filter((child) => child !== null && child !== undefined));
  return node;
}

const seconds = (t) => (t === null || t === undefined ? '–' : `${Number(t).toFixed(3)} s`);
const range = (r) => (r ? `${seconds(r[0])} to ${seconds(r[1])}` : 'none');
const clock = (ms) => new Date(ms).toTimeString().slice(0, 8) + '.' + String(ms % 1000).padStart(3, '0');
const bytes = (n) => (n < 1024 ? `${n} B` : n < 1048576 ? `${(n / 1024).toFixed(1)} KiB` : `${(n / 1048576).toFixed(1)} MiB`);

// The transport as the last change left it; while playing the page moves the playhead itself.
let transport = { playing: false, time: 0, loop: null, duration: 0, since: 0 };

function playhead() {
  let t = transport.time;
  if (transport.playing) {
    t += (Date.now() - transport.since) / 1000;
    const loop = transport.loop;
    if (loop && loop[1] > loop[0] && t >= loop[1]) t = loop[0] + ((t - loop[0]) % (loop[1] - loop[0]));
    t = Math.min(t, Math.max(transport.duration, loop ? loop[1] : 0));
  }
  return `${transport.playing ? 'playing' : 'stopped'} at ${seconds(t)}`;
}

function showProject(project) {
  transport = { playing: project.playing, time: project.time, loop: project.loopRange,
                duration: project.duration, since: Date.now() };
  const rows = [
    ['File', `${project.file ?? 'none'}${project.dirty ? ' (unsaved changes)' : ''}`],
    ['Duration', seconds(project.duration)],
    ['Transport', playhead()],
    ['Loop', range(project.loopRange)],
    ['Selection', `clips ${project.selectedClips.length ? project.selectedClips.join(', ') : 'none'}; ` +
      `track ${project.selectedTrack ?? 'none'}; range ${range(project.selectionRange)}`],
    ['Undo', project.undoLabel ?? '–'],
    ['Redo', project.redoLabel ?? '–'],
    ['Markers', String(project.markers)],
  ];
  $('summary').replaceChildren(...rows.flatMap(([name, value]) =>
    [el('dt', {}, name), el('dd', name === 'Transport' ? { id: 'transport' } : {}, value)]));
  $('tracks').tBodies[0].replaceChildren(...project.tracks.map((track, index) => el('tr', { 'data-track': track.id },
    el('td', {}, String(index)), el('td', {}, track.name), el('td', {}, track.kind),
    el('td', {}, [track.mute && 'muted', track.solo && 'solo'].filter(Boolean).join(', ')),
    el('td', {}, ...track.clips.map((clip) => el('span', { class: 'clip', 'data-clip': clip.id, title: clip.id },
      `${clip.name} at ${seconds(clip.offset)}, ${seconds(clip.duration)}`)),
      track.clipCount > track.clips.length ? `and ${track.clipCount - track.clips.length} more` : null),
    el('td', {}, String(track.noteCount)))));
  if (project.trackCount > project.tracks.length) {
    $('tracks').tBodies[0].append(el('tr', {}, el('td', { colspan: 6 }, `and ${project.trackCount - project.tracks.length} more tracks`)));
  }
}

// The timeline is the snapshot's own picture; only the newest change is drawn when they come fast.
let drawing = false;
let wanted = null;
function drawTimeline(version, changedAt) {
  wanted = { version, changedAt };
  if (!drawing) drawNext();
}
function drawNext() {
  const next = wanted;
  wanted = null;
  drawing = true;
  const picture = new Image();
  picture.alt = "The project's timeline";
  const done = () => {
    drawing = false;
    if (wanted) drawNext();
  };
  picture.onload = () => {
    picture.id = 'timeline';
    picture.dataset.version = next.version;
    $('timeline').replaceWith(picture);
    if (next.changedAt) document.body.dataset.redrawMs = String(Date.now() - next.changedAt);
    done();
  };
  picture.onerror = done;
  picture.src = `/timeline.png?v=${next.version}`;
}

function showFaults(faults) {
  const items = faults.rules.map((rule) => el('li', {}, el('code', {}, rule)));
  if (faults.downUntil) items.push(el('li', { class: 'failed' }, `down until ${clock(faults.downUntil)}`));
  $('faults').replaceChildren(...(items.length ? items : [el('li', {}, 'none: every request is answered')]));
  $('faults').dataset.text = faults.text;
}

let counts = { requests: 0, connections: { open: 0, most: 0 } };
function showCounts(changed) {
  counts = { ...counts, ...changed };
  const { requests, connections } = counts;
  $('counts').textContent =
    `${requests} requests · /v1 connections: ${connections.open} open, at most ${connections.most} at once`;
}

function requestRow(entry) {
  const status = entry.status === 0 ? 'closed' : String(entry.status);
  const row = el('tr', { class: 'request', 'data-id': entry.id, 'data-target': entry.target, 'data-method': entry.method },
    el('td', {}, clock(entry.at)), el('td', {}, entry.method), el('td', {}, entry.target),
    el('td', { class: entry.status === 0 || entry.status >= 400 ? 'failed' : null }, status),
    el('td', {}, entry.ms.toFixed(1)), el('td', {}, bytes(entry.requestBytes)), el('td', {}, bytes(entry.answerBytes)),
    el('td', { class: 'faulted' }, entry.faults.join(', ')));
  row.addEventListener('click', () => toggleBodies(row, entry.id));
  return row;
}

function bodyText(body) {
  if (body.dropped) return `${bytes(body.bytes)}, no longer kept`;
  if (body.text === null) return `[${body.type}, ${bytes(body.bytes)}]`;
  let text = body.text;
  try {
    text = JSON.stringify(JSON.parse(text), null, 2);
  } catch (_) { /* shown as it came */ }
  return body.truncated ? `${text}\n… (the first ${bytes(body.text.length)} of ${bytes(body.bytes)})` : text;
}

async function toggleBodies(row, id) {
  const open = row.nextElementSibling;
  if (open && open.classList.contains('bodies')) return open.remove();
  const cell = el('td', { colspan: 8 }, 'loading…');
  row.after(el('tr', { class: 'bodies' }, cell));
  try {
    const answer = await fetch(`/log/${id}`);
    const bodies = await answer.json();
    if (!answer.ok) throw new Error(bodies.error);
    cell.replaceChildren('Request', el('pre', { class: 'request-body' }, bodyText(bodies.request) || '(empty)'),
      'Answer', el('pre', { class: 'answer-body' }, bodyText(bodies.answer) || '(empty)'));
  } catch (error) {
    cell.textContent = String(error.message || error);
  }
}

function hello(state) {
  document.body.dataset.live = '1';
  $('link').textContent = 'live';
  showProject(state.project);
  drawTimeline(state.version, 0);
  showFaults(state.faults);
  showCounts({ requests: state.requests, connections: state.apiConnections });
  $('log').tBodies[0].replaceChildren(...state.log.map(requestRow));
}

function request({ entry, requests, connections }) {
  const rows = $('log').tBodies[0];
  rows.prepend(requestRow(entry));
  while (rows.querySelectorAll('tr.request').length > kLogRows) {
    const last = rows.lastElementChild;
    if (last.classList.contains('bodies')) last.previousElementSibling.remove();
    last.remove();
  }
  showCounts({ requests, connections });
}

let stream = null;
function connect() {
  stream = new EventSource('/events');
  const on = (name, show) => stream.addEventListener(name, (event) => show(JSON.parse(event.data)));
  on('hello', hello);
  on('project', ({ version, changedAt, project }) => {
    showProject(project);
    drawTimeline(version, changedAt);
  });
  on('request', request);
  on('faults', showFaults);
  on('connections', (connections) => showCounts({ connections }));
  stream.onerror = () => {
    document.body.dataset.live = '0';
    $('link').textContent = 'the simulator is not reachable: trying again';
    // The browser retries a dropped stream itself; one it gave up on is opened again here.
    if (stream.readyState === EventSource.CLOSED) setTimeout(connect, 1000);
  };
}

async function sendFaults(text) {
  $('fault-error').textContent = '';
  try {
    const answer = await fetch('/faults', {
      method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify({ faults: text }),
    });
    const body = await answer.json();
    if (!answer.ok) throw new Error(body.error);
    showFaults(body);
  } catch (error) {
    $('fault-error').textContent = String(error.message || error);
  }
}

$('fault-form').addEventListener('submit', (event) => {
  event.preventDefault();
  sendFaults($('fault-text').value);
});
$('fault-clear').addEventListener('click', () => sendFaults(''));
setInterval(() => {
  if (transport.playing && $('transport')) $('transport').textContent = playhead();
}, 200);
connect();
