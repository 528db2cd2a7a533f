// Live figures: the browser's statistics of every connection, and the loudness of every voice.

/** How loud a stream is: `level()` gives 0 to 1 on a scale of 60 dB, 0 for streams without sound. */
export class Meter {
  static #context = null;
  #source;
  #analyser;
  #samples;

  constructor(stream) {
    if (!stream.getAudioTracks().length) return;
    const context = (Meter.#context ??= new AudioContext());
    context.resume().catch(() => {}); // waits for the first click, which joining is
    this.#analyser = context.createAnalyser();
    this.#analyser.fftSize = 1024;
    this.#samples = new Float32Array(this.#analyser.fftSize);
    this.#source = context.createMediaStreamSource(stream);
    this.#source.connect(this.#analyser);
  }

  level() {
    if (!this.#analyser) return 0;
    this.#analyser.getFloatTimeDomainData(this.#samples);
    let sum = 0;
    for (const sample of this.#samples) sum += sample * sample;
    const decibels = 10 * Math.log10(sum / this.#samples.length + 1e-12);
    return Math.min(1, Math.max(0, (decibels + 60) / 60));
  }

  close() {
    this.#source?.disconnect();
  }
}

const milliseconds = (seconds) => (seconds === undefined ? undefined : Math.round(seconds * 1000));

/** The figures of one connection: {sound: {...}, picture: {...}}, received or sent. */
export async function figuresOf(connection) {
  const told = {sound: {}, picture: {}};
  const side = (report) => (report.kind === 'audio' ? told.sound : told.picture);
  for (const report of (await connection.getStats()).values()) {
    if (report.type === 'inbound-rtp') {
      Object.assign(side(report), {
        packets: report.packetsReceived, lost: report.packetsLost, bytes: report.bytesReceived,
        jitter_ms: milliseconds(report.jitter),
      }, report.kind === 'video' ? {
        frames_decoded: report.framesDecoded, freezes: report.freezeCount,
        width: report.frameWidth, height: report.frameHeight, fps: report.framesPerSecond,
      } : {
        energy: report.totalAudioEnergy, concealed: report.concealedSamples,
        samples: report.totalSamplesReceived,
      });
    } else if (report.type === 'outbound-rtp') { // one for each size of the picture: the largest is shown
      const sent = side(report);
      sent.packets = (sent.packets ?? 0) + report.packetsSent;
      sent.bytes = (sent.bytes ?? 0) + report.bytesSent;
      if (report.frameWidth > (sent.width ?? 0)) {
        Object.assign(sent, {
          frames_encoded: report.framesEncoded, width: report.frameWidth, height: report.frameHeight,
          fps: report.framesPerSecond,
        });
      }
      if (report.frameWidth) sent.sizes = (sent.sizes ?? 0) + 1;
    } else if (report.type === 'remote-inbound-rtp') {
      const sent = side(report);
      sent.lost = (sent.lost ?? 0) + report.packetsLost;
      sent.jitter_ms = Math.max(sent.jitter_ms ?? 0, milliseconds(report.jitter));
      sent.round_trip_ms = Math.max(sent.round_trip_ms ?? 0, milliseconds(report.roundTripTime) ?? 0);
    }
  }
  return told;
}

const number = (value) => (value === undefined ? '–' : value.toLocaleString('en'));

const LINES = [
  ['Packets lost', (f) => f.packets !== undefined
    && `${number(f.lost ?? 0)} of ${number(f.packets + Math.max(0, f.lost ?? 0))}`],
  ['Jitter', (f) => f.jitter_ms !== undefined && `${number(f.jitter_ms)} ms`],
  ['Round trip', (f) => f.round_trip_ms !== undefined && `${number(f.round_trip_ms)} ms`],
  ['Rate', (f) => f.kilobits !== undefined && `${number(f.kilobits)} kb/s`],
  ['Made up', (f) => f.samples > 0 && `${(100 * (f.concealed ?? 0) / f.samples).toFixed(1)} %`],
  ['Frames decoded', (f) => f.frames_decoded !== undefined && number(f.frames_decoded)],
  ['Frames encoded', (f) => f.frames_encoded !== undefined && number(f.frames_encoded)],
  ['Size', (f) => f.width && `${f.width}×${f.height}, ${Math.round(f.fps ?? 0)}/s`],
  ['Freezes', (f) => f.freezes !== undefined && number(f.freezes)],
];

function list(title, figures) {
  const lines = LINES.map(([label, show]) => [label, show(figures)]).filter(([, text]) => text);
  if (!lines.length) return [];
  const heading = document.createElement('h4');
  heading.textContent = title;
  const terms = document.createElement('dl');
  for (const [label, text] of lines) {
    const pair = document.createElement('div');
    pair.append(document.createElement('dt'), document.createElement('dd'));
    pair.firstChild.textContent = label;
    pair.lastChild.textContent = text;
    terms.append(pair);
  }
  return [heading, terms];
}

/** The panel: collects once a second while it is open, and shows a card for each participant. */
export class FiguresPanel {
  #before = new Map(); // "id side" -> {bytes, at}

  constructor(panel, cards) {
    this.panel = panel;
    this.cards = cards;
    this.last = {};
  }

  #rate(key, figures) {
    if (figures.bytes === undefined) return;
    const now = {bytes: figures.bytes, at: performance.now()};
    const before = this.#before.get(key);
    this.#before.set(key, now);
    if (before && now.at > before.at) {
      figures.kilobits = Math.max(0, Math.round((now.bytes - before.bytes) * 8 / (now.at - before.at)));
    }
  }

  /** `connections`: [[id, name, RTCPeerConnection]]; gives what it collected, by id. */
  async collect(connections) {
    const told = {};
    for (const [id, name, connection] of connections) {
      const figures = await figuresOf(connection);
      for (const side of ['sound', 'picture']) this.#rate(`${id} ${side}`, figures[side]);
      told[id] = {name, ...figures};
    }
    this.last = told;
    return told;
  }

  /** Moves the bar in a participant's card: 0 to 1. */
  setLevel(id, level) {
    const card = [...this.cards.children].find((each) => each.dataset.id === id);
    if (card) card.querySelector('.meter span').style.scale = `${level} 1`;
  }

  async show(connections) {
    const told = await this.collect(connections);
    this.cards.replaceChildren(...Object.entries(told).map(([id, {name, sound, picture}]) => {
      const card = document.createElement('section');
      card.innerHTML = '<h3></h3><div class="meter" aria-hidden="true"><span></span></div>';
      card.dataset.id = id;
      card.firstChild.textContent = name;
      card.append(...list('Sound', sound), ...list('Picture', picture));
      return card;
    }));
  }
}
