// The operator's page: agents and their state, commands, live audio, camera preview, feed.
'use strict';

const room = { link: null, agents: new Map(), listen: 0, preview: 0, audio: null, node: null,
               audioSamples: 0, previewFrames: 0, feedCount: 0, lastState: null, all: {}, quality: null };
window.__room = room; // for tests and for a look from the console

const $ = (id) => document.getElementById(id);

// Nothing is dropped silently: without a link the buttons are off, and anything else says so.
function send(to, command) {
  const up = room.link && room.link.readyState === WebSocket.OPEN;
  if (up) room.link.send(JSON.stringify({ to, command }));
  else $('link-note').textContent = `not sent: not connected to the room (${command.type}${to ? ` to #${to}` : ''})`;
  return up;
}

function linked(up, text) {
  $('link-state').textContent = text; $('link-state').className = up ? 'good' : 'bad';
  for (const b of document.querySelectorAll('button')) b.disabled = !up;
  if (up) $('link-note').textContent = '';
  if (up) for (const row of room.agents.values()) if (row.agent) render(row.agent); // what each row allows

}

function connect() {
  const ws = new WebSocket(`ws://${location.host}/page`);
  ws.binaryType = 'arraybuffer';
  ws.onopen = () => {
    linked(true, 'connected');
    // A new link starts with nothing on: ask again for what this page shows as on.
    if (room.listen) send(room.listen, { type: 'listen', on: true });
    if (room.preview) send(room.preview, { type: 'preview', on: true, hd: $('hd').checked });
  };
  ws.onclose = () => {
    linked(false, 'not connected — retrying');
    setTimeout(connect, 2000);
  };
  ws.onmessage = (e) => { room.heard = Date.now(); (typeof e.data === 'string' ? onText(JSON.parse(e.data)) : onFrame(e.data)); };
  room.link = ws;
  room.heard = Date.now();
}

// The room sends its state twice a second: a link open but silent means a room that does not run
// (stopped, overloaded). Said in the header; what is pressed meanwhile goes once it runs again.
setInterval(() => {
  if (!room.link || room.link.readyState !== WebSocket.OPEN) return;
  const quiet = Date.now() - room.heard;
  if (quiet > 3000) {
    $('link-state').textContent = `connected, but the room has not answered for ${Math.round(quiet / 1000)} s`;
    $('link-state').className = 'bad';
  } else if ($('link-state').className === 'bad') {
    linked(true, 'connected');
  }
}, 1000);

function onText(m) {
  if (m.kind === 'state') {
    room.lastState = m;
    if (m.name) { $('room-name').textContent = m.name; document.title = m.name; }
    if (m.all) showAll(m.all);
    for (const a of m.agents) render(a);
    showQuality(m.agents);
    if (m.feed) { $('feed').textContent = ''; m.feed.forEach(addFeed); }
    refreshCameras();
  } else if (m.kind === 'feed') {
    addFeed(m.item);
  } else if (m.kind === 'ended') { // End Live: the agent stopped it; shown off until pressed again
    if (m.stream === 'listen' && room.listen === m.agent) showListen(0);
    if (m.stream === 'preview' && room.preview === m.agent) showPreview(0);
    const row = room.agents.get(m.agent);
    if (row && row.agent) render(row.agent);
  }
}

// Only what the operator last asked of every agent; what each agent does is on its row.
function showAll(all) {
  room.all = all;
  const asked = [all.liveAsked && (all.live ? 'Go Live' : 'End Live'),
    all.sessionAsked && (all.session ? `start ${all.session}` : all.live && 'stop'), all.quality && `quality ${all.quality}`].filter(Boolean);
  $('all-state').textContent = asked.length ? `Last asked of all: ${asked.join(' · ')}` : 'Nothing asked of all agents yet';
}

// The quality in force is the one last sent: agents do not report theirs. The selector follows
// it when it changes (a reload, another page), not while the operator picks one.
function showQuality(agents) {
  const q = room.all.quality || '';
  if (q !== room.quality) { room.quality = q; $('quality').value = q; }
  const own = agents.filter((a) => a.quality && a.quality !== q && !a.released).map((a) => `#${a.id} ${a.quality}`);
  $('quality-state').textContent = (q ? `in force: ${q} (last sent)` : 'not sent: each agent keeps its own (full unless changed)')
    + (own.length ? ` · sent to one agent: ${own.join(', ')}` : '');
}

// ---- agents table ---------------------------------------------------------------------------
const columns = ['id', 'name', 'link', 'recording', 'live', 'mic', 'sys', 'devices', 'errors', 'uploads', 'event', 'actions'];

function makeRow(id) {
  const tr = document.createElement('tr');
  tr.id = `agent-${id}`;
  const cells = {};
  for (const c of columns) { const td = document.createElement('td'); td.className = c; tr.appendChild(td); cells[c] = td; }
  for (const k of ['mic', 'sys']) cells[k].innerHTML = '<div class="meter"><div></div></div>';
  const button = (label, action) => {
    const b = document.createElement('button'); b.textContent = label; b.onclick = action; b.disabled = room.link.readyState !== WebSocket.OPEN;
    cells.actions.appendChild(b); return b;
  };
  const row = { tr, cells, agent: null };
  row.live = button('Go Live', () => send(id, { type: 'cameras', on: !row.agent.live }));
  button('Start', () => start(id));
  button('Stop', () => send(id, { type: 'stop' }));
  row.listen = button('Listen', () => toggleListen(id));
  row.preview = button('Preview', () => togglePreview(id));
  button('Whisper', () => { $('whisper-to').value = id; $('whisper-text').focus(); });
  button('Release', () => { if (confirm(`Free agent number ${id} from its computer?`)) send(id, { type: 'release' }); });
  $('agents').tBodies[0].appendChild(tr);
  return row;
}

// Meters read in decibels as sound meters do: -60 dB (and silence) at the left, full scale at the right.
function dB(value) { const v = Math.min(1, Number(value) || 0); return v > 0 ? Math.max(-60, 20 * Math.log10(v)) : -60; }
function level(value) { return `${Math.round((dB(value) + 60) / 60 * 100)}%`; }
function meter(bar, value) {
  bar.style.width = level(value);
  bar.parentNode.title = dB(value) > -60 ? `${Math.round(dB(value))} dB` : 'silent (below -60 dB)';
}

// What the operator asked of this row that it does not do yet, in words; and where the row was
// asked otherwise than every agent, so that the header line is not contradicted silently.
function wishes(a, here) {
  const all = room.all;
  const own = (asked, mine, everyone, what) => (asked && mine !== everyone ? `asked of this agent only: ${what}` : '');
  return {
    live: [!here && a.live && 'Go Live when it connects', own(all.liveAsked, !!a.live, !!all.live, a.live ? 'Go Live' : 'End Live')],
    recording: [a.session && (!a.live ? `will record ${a.session} at Go Live` : !here && `will record ${a.session} when it connects`),
      own(all.sessionAsked, a.session || '', all.session || '', a.session ? `start ${a.session}` : 'stop')],
  };
}
const words = (...parts) => parts.flat().filter(Boolean).join(' · ');

function render(a) {
  let row = room.agents.get(a.id);
  if (!row) { row = makeRow(a.id); room.agents.set(a.id, row); }
  row.agent = a;
  // Away or released, nothing of its computer is shown: its last status is old news, and a
  // released number has no computer. Only what the room keeps asking of it, in words.
  const here = a.connected && !a.released;
  const s = here ? a.status || {} : {};
  const c = row.cells;
  const wish = wishes(a, here);
  row.tr.className = here ? (s.recording ? 'recording' : '') : 'away';
  c.id.textContent = a.id;
  c.name.textContent = a.name + (here && a.onCall ? ' · on a call' : '');
  c.link.textContent = a.connected ? 'connected' : a.released ? 'released' : 'away';
  c.recording.textContent = words(here && (s.recording ? `recording${a.session ? ` · ${a.session}` : ''}` : 'not recording'), wish.recording);
  c.live.textContent = words(here && (a.live ? 'live' : 'not live'), s.live && 'heard', wish.live);
  // Listening and the preview wait for an agent that dropped (a blip of its Wi-Fi): the room asks
  // it again when it is back. Meanwhile the buttons say so instead of showing them on.
  if (room.listen === a.id) $('listen-who').textContent = `to agent #${a.id}` + (a.connected ? '' : ' (away: resumes when it is back)');
  if (room.listen === a.id && !a.connected) $('listen-level').style.width = '0%';
  if (room.preview === a.id) $('preview-who').textContent = `of agent #${a.id}` + (a.connected ? '' : ' (away)');
  if (room.preview === a.id) labelPreview();
  meter(c.mic.firstChild.firstChild, s.mic);
  meter(c.sys.firstChild.firstChild, s.sys);
  const cams = s.cams || [];
  const cam = cams.find((x) => x.uid === s.camUID) || cams[0];
  c.devices.textContent = here ? `${s.micName || 'no microphone'} · ${s.cam ? `${cam ? cam.name : 'camera'} ${s.camActive ? 'on' : 'off'}` : 'no camera'}` : '';
  c.errors.textContent = [s.camError && `camera: ${s.camError}`, s.error].filter(Boolean).join(' · ');
  c.errors.className = 'errors err';
  c.uploads.textContent = a.released ? '' : `${a.stored} stored` + (a.uploading ? `, ${a.uploading} arriving` : '');
  const e = (!a.released && a.lastEvent) || {};
  c.event.textContent = e.type ? `${e.type} ${time(e.time)}` : '';
  // Live is shown only for an agent that is there; a wish for one that is not reads as one.
  row.live.textContent = a.live ? (here ? 'End Live' : 'Cancel Go Live') : 'Go Live';
  row.live.classList.toggle('on', !!a.live && here);
  row.listen.classList.toggle('on', room.listen === a.id && a.connected);
  row.listen.classList.toggle('waiting', room.listen === a.id && !a.connected);
  row.preview.classList.toggle('on', room.preview === a.id && a.connected);
  row.preview.classList.toggle('waiting', room.preview === a.id && !a.connected);
  // An agent sends sound and pictures only while there and live: until then the buttons wait (one on stays off-able).
  const up = room.link && room.link.readyState === WebSocket.OPEN;
  const streams = here && a.live;
  for (const [b, on] of [[row.listen, room.listen === a.id], [row.preview, room.preview === a.id]]) {
    b.disabled = !up || (!streams && !on);
    b.title = streams ? '' : here ? 'Go Live first: the agent sends sound and pictures only while live' : 'The agent is not connected';
  }
}

// ---- feed -----------------------------------------------------------------------------------
function time(iso) { return iso ? new Date(iso).toLocaleTimeString() : ''; }

function addFeed(item) {
  const li = document.createElement('li');
  // An agent asking for help stands out; so do warnings.
  li.className = item.kind + (/; warning: /.test(item.text) ? ' warning' : '') + (item.kind === 'event' && /^help\b/.test(item.text) ? ' attention' : '');
  const t = document.createElement('time'); t.dateTime = item.time; t.textContent = time(item.time);
  const k = document.createElement('span'); k.className = 'kind'; k.textContent = item.kind + (item.agent && item.kind !== 'sent' ? ` #${item.agent}` : ''); // "→ #3: …" names it
  li.append(t, k);
  if (item.link) {
    const a = document.createElement('a'); a.href = item.link; a.target = '_blank'; a.textContent = item.text; li.append(a);
  } else {
    li.append(document.createTextNode(item.text));
  }
  $('feed').prepend(li);
  while ($('feed').children.length > 500) $('feed').lastChild.remove();
  room.feedCount++;
}

// ---- live audio -----------------------------------------------------------------------------
async function toggleListen(id) {
  const was = room.listen;
  if (was) send(was, { type: 'listen', on: false });
  showListen(was === id ? 0 : id);
  if (!room.listen) return;
  if (!room.audio) {
    room.audio = new AudioContext({ sampleRate: 48000, latencyHint: 'interactive' });
    await room.audio.audioWorklet.addModule('worklet.js');
    room.node = new AudioWorkletNode(room.audio, 'live-audio', { outputChannelCount: [1] });
    room.node.port.onmessage = (e) => { room.audioSamples = e.data.received; room.audioDropped = e.data.dropped; };
    room.node.connect(room.audio.destination);
  }
  await room.audio.resume();
  send(id, { type: 'listen', on: true });
}

function showListen(id) {
  room.listen = id;
  $('listen-who').textContent = id ? `to agent #${id}` : 'to nobody';
  if (!id) $('listen-level').style.width = '0%';
}

function playPcm(source, bytes) {
  // 16-bit little-endian mono at 48 kHz, as the agent sends it.
  const n = bytes.byteLength >> 1;
  const view = new DataView(bytes.buffer, bytes.byteOffset, n * 2);
  const samples = new Float32Array(n);
  let peak = 0;
  for (let i = 0; i < n; i++) { samples[i] = view.getInt16(i * 2, true) / 32768; peak = Math.max(peak, Math.abs(samples[i])); }
  meter($('listen-level'), peak);
  if (room.node) room.node.port.postMessage({ source, samples }, [samples.buffer]);
}

// ---- preview --------------------------------------------------------------------------------
function togglePreview(id) {
  const was = room.preview;
  if (was) send(was, { type: 'preview', on: false });
  showPreview(was === id ? 0 : id);
  if (room.preview) send(id, { type: 'preview', on: true, hd: $('hd').checked });
}

function showPreview(id) {
  room.preview = id;
  $('preview-who').textContent = id ? `of agent #${id}` : '';
  labelPreview();
  if (!id) $('preview').removeAttribute('src');
  refreshCameras();
}

// On the picture itself: the agents' cameras look alike.
function labelPreview() {
  const row = room.agents.get(room.preview);
  $('preview-label').textContent = row ? `#${room.preview} ${row.agent.name}` : '';
}

function refreshCameras() {
  const row = room.agents.get(room.preview);
  const cams = (row && row.agent.status && row.agent.status.cams) || [];
  const select = $('camera');
  const key = cams.map((c) => c.uid).join('|');
  if (select.dataset.key === key) return;
  select.dataset.key = key;
  select.length = 1;
  for (const cam of cams) { const o = document.createElement('option'); o.value = cam.uid; o.textContent = cam.name; select.appendChild(o); }
}

let lastPicture = null;
function showPicture(bytes) {
  const url = URL.createObjectURL(new Blob([bytes], { type: 'image/jpeg' }));
  $('preview').src = url;
  if (lastPicture) URL.revokeObjectURL(lastPicture);
  lastPicture = url;
  room.previewFrames++;
}

function onFrame(data) {
  // Two bytes of agent number, then the agent's frame: its kind, then its payload.
  const bytes = new Uint8Array(data);
  if (bytes.length < 3) return;
  const id = (bytes[0] << 8) | bytes[1];
  const kind = bytes[2];
  const payload = bytes.subarray(3);
  if (kind === 2 && id === room.preview) showPicture(payload);
  else if (kind <= 1 && id === room.listen) playPcm(kind, payload);
}

// ---- buttons for everyone -------------------------------------------------------------------
$('all-live').onclick = () => send(0, { type: 'cameras', on: true });
$('all-end-live').onclick = () => send(0, { type: 'cameras', on: false });
// The room's rule for a session name, checked here too so the operator sees why before sending.
function start(to) {
  const session = $('session').value.trim();
  const ok = /^[A-Za-z0-9_+%-][A-Za-z0-9_.+%-]{0,63}$/.test(session);
  $('session-note').textContent = ok ? '' : 'A session is 1 to 64 letters, digits or _.+-% and does not start with ".".';
  if (ok) send(to, { type: 'start', session });
}
$('all-start').onclick = () => start(0);
$('all-stop').onclick = () => send(0, { type: 'stop' });
$('all-quality').onclick = () => { if ($('quality').value) send(0, { type: 'quality', q: $('quality').value }); };
$('hd').onchange = () => { if (room.preview) send(room.preview, { type: 'preview', on: true, hd: $('hd').checked }); };
$('camera').onchange = () => { if (room.preview) send(room.preview, { type: 'setCam', uid: $('camera').value }); };
$('whisper-send').onclick = () => {
  const to = Number($('whisper-to').value), seat = Number($('whisper-seat').value), text = $('whisper-text').value;
  const row = room.agents.get(to);
  let why = '';
  if (!(Number.isInteger(to) && to >= 1 && to <= 110)) why = 'Name the agent: a number from 1 to 110.';
  else if (!row || !row.agent.connected) why = `Agent #${to} is not connected: the whisper would reach nobody.`;
  else if (!(Number.isInteger(seat) && seat >= 0 && seat <= 9999)) why = 'The seat is a number from 0 to 9999.';
  else if (!text.trim()) why = 'Write what to whisper (up to 500 characters).';
  else if (text.length > 500) why = `The whisper has ${text.length} characters; the room takes up to 500. Shorten it.`;
  $('whisper-note').textContent = why;
  if (!why && send(to, { type: 'whisper', seat, text })) $('whisper-text').value = ''; // pressed again, it is not sent twice
};

linked(false, 'connecting…');
connect();
