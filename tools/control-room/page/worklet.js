// Live audio of one agent: one jitter buffer per source (microphone, computer audio), mixed.
// Playback starts once about 150 ms are buffered; when more than twice that piles up, the oldest
// audio is dropped so that what is heard never drifts behind.
const TARGET = 7200;   // 150 ms at 48 kHz
const MAX = 2 * TARGET;

class Source {
  constructor() { this.ring = new Float32Array(48000); this.read = 0; this.size = 0; this.playing = false; }
  push(samples) {
    let dropped = 0;
    for (let i = 0; i < samples.length; i++) {
      if (this.size === this.ring.length) { this.read = (this.read + 1) % this.ring.length; this.size--; dropped++; }
      this.ring[(this.read + this.size) % this.ring.length] = samples[i];
      this.size++;
    }
    if (this.size > MAX) { const cut = this.size - TARGET; this.read = (this.read + cut) % this.ring.length; this.size -= cut; dropped += cut; }
    return dropped;
  }
  mixInto(out) {
    if (!this.playing && this.size >= TARGET) this.playing = true;
    if (!this.playing) return;
    const n = Math.min(out.length, this.size);
    for (let i = 0; i < n; i++) { out[i] += this.ring[this.read]; this.read = (this.read + 1) % this.ring.length; }
    this.size -= n;
    if (n < out.length) this.playing = false; // ran dry: fill up to the target again
  }
}

class LiveAudio extends AudioWorkletProcessor {
  constructor() {
    super();
    this.sources = [new Source(), new Source()];
    this.received = 0;
    this.dropped = 0;
    this.port.onmessage = (e) => {
      const s = this.sources[e.data.source] || this.sources[0];
      const dropped = s.push(e.data.samples);
      this.dropped += dropped;
      this.received += e.data.samples.length;
      // A tagged piece hears back what it alone cost (for a look from the console and for tests).
      this.port.postMessage({ received: this.received, dropped: this.dropped, tag: e.data.tag, droppedNow: dropped });
    };
  }
  process(inputs, outputs) {
    const out = outputs[0][0];
    out.fill(0);
    for (const s of this.sources) s.mixInto(out);
    for (let i = 0; i < out.length; i++) out[i] = Math.max(-1, Math.min(1, out[i]));
    return true;
  }
}
registerProcessor('live-audio', LiveAudio);
