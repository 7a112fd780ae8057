// The operator's page end to end: the control room, two agents on the test sound server with
// synthetic cameras, and headless chromium driven by Playwright. Screenshots of each step land
// in <build>/room-screens/. Skips (exit 77) when chromium or playwright-core is missing.
import { spawn, spawnSync, execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { createRequire } from 'node:module';

const build = path.resolve(process.argv[2] || 'build');
const screens = path.join(build, 'room-screens');
const chromiumPath = '/usr/bin/chromium';
const require = createRequire(import.meta.url);
let chromium;
try { ({ chromium } = require('playwright-core')); } catch { chromium = null; }
if (!chromium || !fs.existsSync(chromiumPath) || !process.env.PULSE_SERVER) {
  // Where the setup ran (CI), a missing piece is a fault of the setup, not a reason to skip.
  console.log(`${process.env.CI ? 'FAIL' : 'SKIP'}: needs playwright-core (tests/tools/browser), /usr/bin/chromium and the test sound server`);
  process.exit(process.env.CI ? 1 : 77);
}

const work = fs.mkdtempSync(path.join(os.tmpdir(), 'brava-room-e2e-'));
const children = [];
let failed = false;
const step = (text) => console.log(`e2e: ${text}`);
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
async function until(what, test, ms = 20000) {
  const end = Date.now() + ms;
  for (;;) {
    const v = await test();
    if (v) return v;
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
    await sleep(200);
  }
}
function run(cmd, args, env, name) {
  const child = spawn(cmd, args, { env: { ...process.env, ...env }, stdio: ['pipe', 'pipe', 'pipe'] });
  child.output = '';
  for (const s of [child.stdout, child.stderr]) s.on('data', (d) => { child.output += d; });
  child.name = name;
  children.push(child);
  return child;
}

let browser;
try {
  fs.rmSync(screens, { recursive: true, force: true });
  fs.mkdirSync(screens, { recursive: true });
  const uploads = path.join(work, 'uploads');

  // A tone in the default output: both the microphone (a remap of its monitor) and computer audio hear it.
  const tone = path.join(work, 'tone.wav');
  execFileSync('sox', ['-n', '-r', '48000', '-c', '1', tone, 'synth', '90', 'sine', '440', 'tremolo', '0.5', '80', 'vol', '0.5']);
  for (const sink of ['brava_out', 'brava_feed']) // computer audio, and the microphones fed from the second sink
    run('paplay', ['-d', sink, tone], {}, `paplay ${sink}`);

  step('control room');
  const room = run(path.join(build, 'brava-control-room'), ['--port', '0', '--uploads', uploads, '--name', 'E2E room'], {}, 'room');
  const address = await until('the page address', () => room.output.match(/^http:\/\/[^:]+:(\d+)\/\?token=([0-9a-f]+)$/m));
  const [port, token] = [Number(address[1]), address[2]];
  const state = async () => (await fetch(`http://127.0.0.1:${port}/api/state`, { headers: { Authorization: `Bearer ${token}` } })).json();

  room.stdin.write('json {"type":"ping"}\n'); // typed before any agent is there
  await until('the terminal\'s warning', () => room.output.includes('sent to 0 agent(s); warning: no agent connected to take it'));

  step('a second room on the same port says so once and leaves no folder');
  const other = spawnSync(path.join(build, 'brava-control-room'), ['--port', String(port), '--uploads', path.join(work, 'second')], { encoding: 'utf8', timeout: 20000 });
  if (other.status !== 1 || (other.stdout + other.stderr).split('cannot listen').length !== 2 || fs.existsSync(path.join(work, 'second')))
    throw new Error(`a room that cannot listen: ${other.status} ${other.stdout}${other.stderr}`);

  step('a room restarted on the same folder keeps the operator token; one without input says so');
  const again = spawnSync(path.join(build, 'brava-control-room'), ['--listen', '127.0.0.1', '--port', '0', '--uploads', uploads], { encoding: 'utf8', input: '', timeout: 3000 });
  if (!again.stdout.includes(`?token=${token}\n`) || !again.stdout.includes('standard input closed: commands typed here are no longer read')
      || (fs.statSync(path.join(uploads, 'room-token')).mode & 0o777) !== 0o600)
    throw new Error(`a restarted room: ${again.stdout}`);

  step('two agents');
  for (const id of [1, 2]) {
    const home = path.join(work, `agent${id}`);
    const config = path.join(home, 'config', 'Brava Recorder');
    fs.mkdirSync(config, { recursive: true });
    fs.writeFileSync(path.join(config, 'settings.ini'),
      `[General]\nagentID=${id}\nagentName=E2E Agent ${id}\nserver=127.0.0.1:${port}\nsetupDone=true\n`);
    run(path.join(build, 'brava-recorder'), [], {
      HOME: home, XDG_CONFIG_HOME: path.join(home, 'config'), XDG_DATA_HOME: path.join(home, 'data'),
      XDG_CACHE_HOME: path.join(home, 'cache'), XDG_STATE_HOME: path.join(home, 'state'),
      // Agent 1 has two cameras wider than the plain preview (480) and narrower than HD (960).
      QT_QPA_PLATFORM: 'offscreen', BRAVA_FAKE_CAMERAS: id === 1 ? '2:640x360@10' : '1:320x180@10',
    }, `agent${id}`);
  }
  await until('both agents connected', async () => (await state()).agents.filter((a) => a.connected).length === 2);

  // No D-Bus for the browser: a bus that other test runs restart would make it abort.
  const browserEnv = { ...process.env, DBUS_SESSION_BUS_ADDRESS: 'unix:path=/nonexistent', DBUS_SYSTEM_BUS_ADDRESS: 'unix:path=/nonexistent' };
  browser = await chromium.launch({ executablePath: chromiumPath, env: browserEnv, args: ['--no-sandbox', '--headless', '--disable-gpu',
    '--autoplay-policy=no-user-gesture-required', '--disable-background-networking', '--disable-component-update', '--disable-sync'] });
  const page = await browser.newPage({ viewport: { width: 1400, height: 900 } });
  const refused = []; // nothing the page asks for (its icon included) is answered with an error
  page.on('response', (r) => { if (r.status() >= 400) refused.push(`${r.status()} ${r.url()}`); });
  await page.goto(`http://127.0.0.1:${port}/?token=${token}`);
  await page.waitForSelector('#agent-1');
  await page.waitForSelector('#agent-2');
  await page.screenshot({ path: path.join(screens, '01-agents-connected.png') });
  if (await page.isVisible('#preview') || !(await page.isVisible('#no-preview'))) throw new Error('a preview picture shows before any frame');

  if (!(await page.isDisabled('#agent-1 button:text-is("Listen")')) || !(await page.isDisabled('#agent-1 button:text-is("Preview")')))
    throw new Error('Listen and Preview can be pressed for an agent that is not live');
  const allState = () => page.textContent('#all-state');
  if ((await allState()) !== 'Nothing asked of all agents yet') throw new Error(`before any command: ${await allState()}`);

  step('the quality sent stays shown after a reload');
  if ((await page.inputValue('#quality')) !== '' || !(await page.textContent('#quality-state')).startsWith('not sent')) throw new Error('a quality shown before any was sent');
  await page.selectOption('#quality', 'low');
  await page.click('#all-quality');
  await until('the quality in force', async () => (await page.textContent('#quality-state')) === 'in force: low (last sent)');
  await page.reload();
  await page.waitForSelector('#agent-2');
  await until('the quality after a reload', async () => (await page.inputValue('#quality')) === 'low');

  step('a room that stops running shows in the header, and recovers');
  room.kill('SIGSTOP');
  await until('the silent room in the header', async () => (await page.textContent('#link-state')).startsWith('connected, but the room has not answered for'), 20000)
    .catch(async (e) => { // the header, how long the page has heard nothing, and the room's process state (T: stopped)
      console.log('header', await page.textContent('#link-state'), 'quiet', await page.evaluate(() => Date.now() - window.__room.heard),
        'room', fs.readFileSync(`/proc/${room.pid}/stat`, 'utf8').split(' ')[2]);
      throw e;
    });
  await page.screenshot({ path: path.join(screens, '01b-room-silent.png') });
  room.kill('SIGCONT');
  await until('the room answering again', async () => (await page.textContent('#link-state')) === 'connected');

  step('a start before Go Live waits for it, then both record');
  const row = (id, cell) => page.textContent(`#agent-${id} td.${cell}`);
  for (const bad of ['s'.repeat(65), 'two words', '.hidden', '  ']) { // refused beside the field, not cut or sent
    await page.fill('#session', bad);
    await page.click('#all-start');
    if (!(await page.textContent('#session-note')).includes('1 to 64')) throw new Error(`session "${bad}" was not refused beside the field`);
  }
  await page.fill('#session', 'e2e-1');
  await page.click('#all-start');
  if ((await page.textContent('#session-note')) !== '') throw new Error('a good session still shows a refusal');
  await until('each row waiting for Go Live', async () => (await row(1, 'recording')) === 'not recording · will record e2e-1 at Go Live'
    && (await row(2, 'recording')) === 'not recording · will record e2e-1 at Go Live' && (await allState()) === 'Last asked of all: start e2e-1 · quality low');
  if ((await page.$$('#feed li.sent.warning')).length !== 1) throw new Error('a start before Go Live is not warned once');
  await page.click('#all-live');
  await until('both agents recording', async () => (await state()).agents.every((a) => a.live && a.status.recording === true));
  await until('what every agent was asked on the page', async () => (await allState()) === 'Last asked of all: Go Live · start e2e-1 · quality low');
  const widths = async () => page.$$eval('td.mic .meter > div, td.sys .meter > div', (ds) => ds.map((d) => d.style.width));
  // The tone swells and fades, so each meter that follows the levels (both agents, both columns) shows several widths.
  const seen = [0, 1, 2, 3].map(() => new Set());
  await until('moving meters', async () => {
    const now = await widths();
    if (now.length !== 4 || now.some((w) => !w || w === '0%')) return false;
    now.forEach((w, i) => seen[i].add(w));
    return seen.every((x) => x.size >= 3);
  }).catch(async (e) => {
    console.log('meters', JSON.stringify(await widths()), 'seen', JSON.stringify(seen.map((x) => [...x])), 'levels',
      JSON.stringify((await state()).agents.map((a) => [a.status.mic, a.status.sys])));
    // What else plays into the test server, and whether the tones still do.
    console.log(spawnSync('pactl', ['list', 'short', 'sink-inputs'], { encoding: 'utf8' }).stdout);
    throw e;
  });
  await until('rows with the session and the camera', async () => (await row(1, 'recording')) === 'recording · e2e-1'
    && (await row(2, 'recording')) === 'recording · e2e-1' && (await row(2, 'devices')).includes('Synthetic Camera 1 on'));
  await page.screenshot({ path: path.join(screens, '02-recording.png') });

  step('preview of agent 1');
  await page.click('#agent-1 button:text-is("Preview")');
  await page.waitForFunction(() => window.__room.previewFrames > 2, null, { timeout: 20000 });
  await page.waitForFunction(() => document.getElementById('preview').naturalWidth === 480, null, { timeout: 10000 });
  if ((await page.textContent('#preview-label')) !== '#1 E2E Agent 1') throw new Error('the preview is not labelled with its agent');
  const [picture, label] = await page.$$eval('#preview, #preview-label', (es) => es.map((e) => e.getBoundingClientRect().toJSON()));
  if (label.top < picture.bottom) throw new Error('the preview\'s label covers the picture');
  await page.screenshot({ path: path.join(screens, '03-preview.png') });

  step('HD preview, then the second camera of agent 1');
  await page.check('#hd');
  await page.waitForFunction(() => document.getElementById('preview').naturalWidth === 640, null, { timeout: 10000 });
  await page.waitForFunction(() => document.querySelectorAll('#camera option').length === 3, null, { timeout: 10000 });
  const [, , second] = await page.$$eval('#camera option', (os) => os.map((o) => ({ uid: o.value, name: o.textContent })));
  // Synthetic camera 1 is tinted red, camera 2 green: the preview's red stands above its luma, then below.
  const redness = () => page.evaluate(() => {
    const img = document.getElementById('preview'), c = document.createElement('canvas');
    if (!img.naturalWidth) return NaN; // between two frames
    c.width = img.naturalWidth; c.height = img.naturalHeight;
    const g = c.getContext('2d');
    g.drawImage(img, 0, 0);
    const d = g.getImageData(0, 0, c.width, c.height).data;
    let sum = 0;
    for (let i = 0; i < d.length; i += 4) sum += d[i] - (0.299 * d[i] + 0.587 * d[i + 1] + 0.114 * d[i + 2]);
    return sum / (d.length / 4);
  });
  await until('the first camera\'s preview in red', async () => (await redness()) > 10);
  await page.selectOption('#camera', second.uid);
  await until('the preview of agent 1\'s second camera', async () => (await redness()) < -10);
  await page.screenshot({ path: path.join(screens, '03b-hd-second-camera.png') });

  step('listen to agent 2');
  await page.click('#agent-2 button:text-is("Listen")');
  await page.waitForFunction(() => window.__room.audioSamples > 48000 / 2, null, { timeout: 20000 });
  await page.evaluate(() => window.__room.link.close());
  await page.waitForSelector('#all-live:disabled', { timeout: 5000 }); // nothing pressed while the link is down is lost silently
  if (await page.evaluate(() => send(1, { type: 'stop' })) || !(await page.textContent('#link-note')).includes('not sent: not connected to the room (stop to #1)')) throw new Error('a command without a link was not refused');
  await page.waitForSelector('#agent-1 button:text-is("Stop"):enabled', { timeout: 10000 });
  if (await page.textContent('#link-note')) throw new Error('the note stays after the reconnect');
  const before = await page.evaluate(() => window.__room.audioSamples);
  await page.waitForFunction((n) => window.__room.audioSamples > n + 48000, before, { timeout: 20000 }); // heard again after a reconnect
  // A second of audio at once is cut down to the jitter buffer (150 ms) rather than heard late.
  const dropped = await page.evaluate(() => new Promise((done) => {
    const port = window.__room.node.port;
    port.addEventListener('message', (e) => { if (e.data.tag === 'burst') done(e.data.droppedNow); });
    port.postMessage({ source: 1, samples: new Float32Array(48000), tag: 'burst' });
  }));
  if (dropped < 48000 - 7200) throw new Error(`a burst of 48000 samples dropped only ${dropped}`);
  // Meters in dB from -60 to 0: half of full scale (0x4000, 16-bit little-endian) is -6 dB, speech at 0.01 is a third.
  const half = await page.evaluate(() => { playPcm(0, new Uint8Array([0, 0x40])); return [document.getElementById('listen-level').style.width, document.querySelector('#listen-box .meter').title, level(0.01), level(0)].join(); });
  if (half !== '90%,-6 dB,33%,0%') throw new Error(`meters: ${half}`);
  // The colour at the end of a bar is the level's: green at -33 dB, red at -3 dB, on small and big meters alike.
  await page.evaluate(() => {
    const box = document.createElement('div'); box.id = 'test-meters'; box.style.width = '300px';
    for (const [kind, value] of [['meter', 0.0224], ['meter', 0.708], ['meter big', 0.0224], ['meter big', 0.708]]) {
      const m = document.createElement('div'); m.className = kind; m.style.margin = '4px 0'; m.innerHTML = '<div style="transition: none"></div>';
      box.append(m); meter(m.firstChild, value);
    }
    document.body.append(box);
  });
  const shot = (await page.locator('#test-meters').screenshot()).toString('base64');
  const ends = await page.evaluate(async (png) => {
    const img = new Image(); img.src = `data:image/png;base64,${png}`; await img.decode();
    const c = document.createElement('canvas'); c.width = img.width; c.height = img.height;
    const g = c.getContext('2d'); g.drawImage(img, 0, 0);
    const box = document.getElementById('test-meters'), at = box.getBoundingClientRect();
    const out = [...box.querySelectorAll('.meter > div')].map((bar) => {
      const r = bar.getBoundingClientRect();
      const [red, green] = g.getImageData(Math.floor(r.right - at.left) - 2, Math.floor(r.top - at.top + r.height / 2), 1, 1).data;
      return green > red + 40 ? 'green' : red > green + 40 ? 'red' : 'yellow';
    });
    box.remove();
    return out.join();
  }, shot);
  if (ends !== 'green,red,green,red') throw new Error(`the ends of meters at -33 and -3 dB: ${ends}`);
  await page.screenshot({ path: path.join(screens, '04-listening.png') });

  step('whisper to agent 1');
  await page.fill('#whisper-text', 'To nobody in particular');
  await page.click('#whisper-send');
  if (!(await page.textContent('#whisper-note')).includes('1 to 110')) throw new Error('a whisper without an agent was not refused');
  for (const [to, text, why] of [['99', 'hello', 'not connected'], ['1', '  ', 'Write what'], ['1', 'w'.repeat(501), 'has 501 characters; the room takes up to 500']]) {
    await page.fill('#whisper-to', to);
    await page.fill('#whisper-text', text);
    await page.click('#whisper-send');
    if (!(await page.textContent('#whisper-note')).includes(why)) throw new Error(`a whisper to ${to} of "${text.slice(0, 20)}" was not refused with "${why}"`);
  }
  await page.fill('#whisper-to', '1');
  await page.fill('#whisper-seat', '3');
  await page.fill('#whisper-text', 'Slow down and ask about the budget');
  await page.click('#whisper-send');
  await page.waitForFunction(() => [...document.querySelectorAll('#feed li.sent')].some((li) => li.textContent.includes('→ #1: whisper (seat 3): Slow down and ask about the budget — sent to 1 agent')),
    null, { timeout: 10000 });
  // A call for help stands out, and a long text wraps inside the feed.
  await fetch(`http://127.0.0.1:${port}/event?id=1&type=help&note=${'n'.repeat(200)}`, { method: 'POST' });
  await page.waitForSelector('#feed li.event.attention', { timeout: 10000 });
  if (await page.$eval('#feed', (f) => f.scrollWidth > f.clientWidth)) throw new Error('a long feed line does not wrap');
  const log = (id) => fs.readFileSync(path.join(work, `agent${id}`, 'data', 'Brava Recorder', 'log.txt'), 'utf8');
  if (await page.inputValue('#whisper-text')) throw new Error('the whisper stays in its box once sent');
  await until('the whisper in agent 1\'s log', () => log(1).includes('whisper from seat 3: Slow down and ask about the budget'));
  if (log(2).includes('whisper') || log(1).includes('To nobody')) throw new Error('a whisper reached the wrong agent');
  await page.screenshot({ path: path.join(screens, '05-whisper.png') });

  step('stop; the files arrive and play');
  await page.click('#agent-2 button:text-is("Listen")');
  await page.click('#all-stop');
  const files = await until('the last pieces of both agents', async () => {
    const s = await state();
    const finals = s.files.filter((f) => /^agent[12]\/e2e-1\/(mic|sys|cam)_\d+_\d+_final\.(m4a|mp4)$/.test(f));
    const agentsDone = [1, 2].every((id) => ['mic', 'sys', 'cam'].every((t) => finals.some((f) => f.startsWith(`agent${id}/e2e-1/${t}_`))));
    return agentsDone && s.agents.every((a) => a.status.recording === false && a.uploading === 0) ? s.files : null;
  }, 60000);
  for (const f of files.filter((x) => x.startsWith('agent'))) {
    const out = execFileSync('ffprobe', ['-v', 'error', '-show_entries', 'format=duration', '-of', 'csv=p=0', path.join(uploads, f)]).toString().trim();
    if (!(Number(out) > 0)) throw new Error(`${f} does not play (${out})`);
    step(`${f} plays, ${Number(out).toFixed(2)} s`);
  }
  await page.waitForSelector('#feed li.upload a');
  await page.screenshot({ path: path.join(screens, '06-stopped-files.png'), fullPage: true });

  step('agent 2 drops while recording and heard');
  await page.fill('#session', 'e2e-2');
  await page.click('#all-start');
  await until('agent 2 recording again', async () => (await row(2, 'recording')) === 'recording · e2e-2');
  await page.click('#agent-2 button:text-is("Listen")');
  children.find((c) => c.name === 'agent2').kill('SIGKILL');
  await until('agent 2 shown away', async () => (await row(2, 'recording')) === 'will record e2e-2 when it connects');
  // Nothing of its computer, only what the room will ask of it again, in words.
  const away = await page.evaluate(() => ({ row: document.getElementById('agent-2').className, live: document.querySelector('#agent-2 td.live').textContent,
    devices: document.querySelector('#agent-2 td.devices').textContent, listen: window.__room.listen,
    green: document.querySelector('#agent-2 td.actions button:nth-child(4)').className, live2: document.querySelector('#agent-2 td.actions button').className,
    preview: document.querySelector('#agent-2 td.actions button:nth-child(5)').disabled,
    meters: [...document.querySelectorAll('#agent-2 .meter > div'), document.getElementById('listen-level')].map((d) => d.style.width).join() }));
  if (JSON.stringify(away) !== JSON.stringify({ row: 'away', live: 'Go Live when it connects', devices: '', listen: 2, green: 'waiting', live2: '', preview: true, meters: '0%,0%,0%' }))
    throw new Error(`agent 2 away: ${JSON.stringify(away)}`);
  await page.fill('#whisper-to', '2');
  await page.fill('#whisper-text', 'Are you there?');
  await page.click('#whisper-send');
  if (!(await page.textContent('#whisper-note')).includes('not connected')) throw new Error('a whisper to an agent away was not refused');
  await page.click('#agent-2 button:text-is("Start")'); // reaches nobody: a warning in red
  await page.waitForSelector('#feed li.sent.warning:has-text("→ #2: start e2e-2")', { timeout: 10000 });
  const warned = await page.textContent('#feed li.sent.warning');
  if (!warned.includes('kept for when it connects')) throw new Error(`a start to agent 2 away, not kept: ${warned}`);
  await page.screenshot({ path: path.join(screens, '07-agent-away.png') });

  step('End Live ends the preview of agent 1: shown off, not resumed by Go Live');
  await page.click('#agent-1 button:text-is("End Live")');
  await page.waitForFunction(() => window.__room.preview === 0 && !document.getElementById('preview').src
    && document.querySelector('#agent-1 td.actions button:nth-child(5)').className === '', null, { timeout: 10000 });
  // The row says it was asked otherwise than every agent.
  await until('agent 1 not live on its own', async () => (await row(1, 'live')) === 'not live · asked of this agent only: End Live');

  step('release agent 1: shown released, not away');
  page.once('dialog', (d) => d.accept());
  await page.click('#agent-1 button:text-is("Release")');
  // Released, the number takes what every agent was asked, for the next computer with it; nothing of the last one shows.
  const released = async () => page.evaluate(() => [...document.querySelectorAll('#agent-1 td')].map((td) => td.textContent).slice(2, 11).join('|')
    + [...document.querySelectorAll('#agent-1 button')].slice(0, 5).map((b) => `|${b.textContent}${b.className ? `.${b.className}` : ''}${b.disabled ? '-' : ''}`).join(''));
  const releasedLive = 'released|will record e2e-2 when it connects|Go Live when it connects||||||';
  await until('agent 1 released', async () => (await released()) === `${releasedLive}|Cancel Go Live|Start|Stop|Listen-|Preview-`);
  await page.click('#agent-1 button:text-is("Cancel Go Live")');
  await until('agent 1 not to go live', async () => (await row(1, 'live')) === 'asked of this agent only: End Live');
  await page.click('#agent-1 button:text-is("Go Live")'); // a wish for when it connects, not shown live
  await until('agent 1 to go live when it connects', async () => (await row(1, 'live')) === 'Go Live when it connects');
  if ((await released()) !== `${releasedLive.replace('will record e2e-2 when it connects', 'asked of this agent only: stop')}|Cancel Go Live|Start|Stop|Listen-|Preview-`)
    throw new Error(`agent 1 released and asked to go live: ${await released()}`);
  await page.screenshot({ path: path.join(screens, '08-released.png') });
  if (refused.length) throw new Error(`the page got errors: ${refused.join(', ')}`);

  step('a stop by signal goes down as "quit" does, and says so');
  room.kill('SIGTERM');
  await until('the room saying it stopped', () => room.output.includes('stopped by SIGTERM: the control room goes down\ncontrol room stopped\n'));
  step('PASS');
} catch (e) {
  failed = true;
  console.log(`FAIL: ${e.message}`);
  for (const c of children) console.log(`--- ${c.name}\n${c.output.split('\n').slice(-15).join('\n')}`);
} finally {
  if (browser) await browser.close();
  for (const c of children) c.kill('SIGTERM');
  await sleep(500);
  for (const c of children) if (c.exitCode === null) c.kill('SIGKILL');
  fs.rmSync(work, { recursive: true, force: true });
}
process.exit(failed ? 1 : 0);
