// Speaks the server's protocol: one WebSocket, one peer connection for what we send, and one for each
// participant that we see and hear. Independent of the page, which `RoomVisit` notifies by events.

const KEEP_ALIVE_MS = 25_000; // the server forgets a session after 60 s of silence
const REPLY_MS = 10_000;
const RETURN_MS = 4_500; // the server keeps a broken session for 5 s
const REJOIN_MS = 60_000; // after a lost server, until the visit ends
const PLUGIN = 'janus.plugin.videoroom';

const NO_SUCH_ROOM = 426;
const ROOM_EXISTS = 427;

/** A failure in words for a person; `code` is the server's number, or 0. */
export class RelayError extends Error {
  constructor(text, code = 0) {
    super(text);
    this.code = code;
  }
}

/** 256 bits. */
const randomSecret = () => {
  const bytes = crypto.getRandomValues(new Uint8Array(32));
  return Array.from(bytes, (byte) => byte.toString(16).padStart(2, '0')).join('');
};
const wait = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

function inWords(code, reason) {
  switch (code) {
    case 403: return 'The server does not accept this token. It may have expired: ask for a new link.';
    case 405: return 'This token does not allow rooms on this server.';
    case NO_SUCH_ROOM: return 'There is no such room on this server.';
    case 429: return 'This room, or making a new one, needs a pin or a key that the token does not have.';
    case 432: return 'The room is full.';
    case 433: return 'This token is not for this room, or it has expired. Ask for a new link.';
    case 458: return 'The server has closed our session. Please join again.';
    default: return `The server refused: ${reason} (${code}).`;
  }
}

/** The two tokens and the pin that one string holds, separated by spaces. */
export function splitToken(text) {
  const parts = text.trim().split(/\s+/).filter(Boolean);
  const pin = parts.find((part) => part.startsWith('pin='))?.slice(4);
  const [realm = '', room = realm] = parts.filter((part) => !part.startsWith('pin='));
  return {realm, room, pin};
}

// Of what others write, in characters and in bytes.
const MAX_DISPLAY = 8192;
const MAX_CAPTION = 65_536;

/** The object that a JSON text holds, or null. */
function objectIn(text) {
  try {
    const value = JSON.parse(text);
    return value && typeof value === 'object' && !Array.isArray(value) ? value : null;
  } catch {
    return null;
  }
}

/**
 * What a participant shows to others: a plain name, or JSON with a program's stream and data. `owner` is set
 * for a further stream of a program, which arrives as a participant but is none.
 */
export function readDisplay(display, id) {
  const text = typeof display === 'string' && display.length <= MAX_DISPLAY ? display : '';
  const {stream, data, owner} = objectIn(text) ?? {stream: text};
  const name = [stream, data].find((each) => typeof each === 'string' && each.trim()) ?? '';
  const guest = `Guest ${String(id).slice(0, 4)}`;
  return {name: name.trim() || guest, owner: typeof owner === 'string' ? owner : ''};
}

export const writeCaption = (text, final) => JSON.stringify({type: 'caption', text, final});

/**
 * A text from a data channel as a caption: {text, final}. Plain text counts as final; null for what is none.
 */
export function parseCaption(data) {
  if (!data || new TextEncoder().encode(data).length > MAX_CAPTION) return null;
  const value = objectIn(data);
  if (!value) return {text: data, final: true};
  if (value.type !== 'caption' || typeof value.text !== 'string') return null;
  return {text: value.text, final: value.final !== false};
}

/** Requests and their replies over one WebSocket, which is reopened when it breaks. */
class Signalling {
  #socket = null;
  #session = 0;
  #count = 0;
  #waiting = new Map();
  #timer = 0;
  #closed = false;

  constructor(url, token) {
    this.url = url;
    this.token = token;
    this.onmessage = () => {}; // messages that are no replies
    this.onreturn = () => {}; // true: the socket broke and we try to come back; false: we are back
    this.onlost = () => {}; // lost for good
  }

  async open() {
    await this.#connect();
    const reply = await this.request({janus: 'create'});
    this.#session = reply.data.id;
    this.#timer = setInterval(() => this.request({janus: 'keepalive'}).catch(() => {}), KEEP_ALIVE_MS);
  }

  #connect() {
    return new Promise((resolve, reject) => {
      const failed = () => reject(new RelayError(`Cannot reach the server at ${this.url}. Is it running?`));
      let socket;
      try {
        socket = new WebSocket(this.url, 'janus-protocol');
      } catch {
        reject(new RelayError(`"${this.url}" is not a server's address: it looks like wss://host:port.`));
        return;
      }
      const late = setTimeout(() => socket.close(), REPLY_MS);
      socket.onopen = () => {
        clearTimeout(late);
        this.#socket = socket;
        socket.onclose = () => this.#broken();
        resolve();
      };
      socket.onclose = () => { clearTimeout(late); failed(); };
      socket.onmessage = (event) => this.#read(JSON.parse(event.data));
    });
  }

  #read(message) {
    if (message.janus === 'ack') return; // the actual reply follows
    const waiting = this.#waiting.get(message.transaction);
    if (!waiting) {
      this.onmessage(message);
      return;
    }
    this.#waiting.delete(message.transaction);
    clearTimeout(waiting.late);
    const data = message.plugindata?.data;
    const error = message.error ?? (data?.error_code && {code: data.error_code, reason: data.error});
    if (error) waiting.reject(new RelayError(inWords(error.code, error.reason), error.code));
    else waiting.resolve(message);
  }

  request(message) {
    const transaction = `t${++this.#count}`;
    const whole = {...message, transaction, token: this.token};
    if (this.#session) whole.session_id = this.#session;
    return new Promise((resolve, reject) => {
      if (this.#socket?.readyState !== WebSocket.OPEN) {
        reject(new RelayError('There is no connection to the server at the moment.'));
        return;
      }
      const late = setTimeout(() => {
        this.#waiting.delete(transaction);
        reject(new RelayError('The server does not answer.'));
      }, REPLY_MS);
      this.#waiting.set(transaction, {resolve, reject, late});
      this.#socket.send(JSON.stringify(whole));
    });
  }

  /** One request to the plug-in; returns its data and the session description. */
  async ask(handle, body, jsep) {
    const reply = await this.request({janus: 'message', handle_id: handle, body, ...(jsep && {jsep})});
    return {data: reply.plugindata?.data ?? {}, jsep: reply.jsep};
  }

  async attach() {
    return (await this.request({janus: 'attach', plugin: PLUGIN})).data.id;
  }

  async #broken() {
    this.#fail(new RelayError('The connection to the server broke.'));
    if (this.#closed) return;
    this.onreturn(true);
    for (const end = Date.now() + RETURN_MS; Date.now() < end && !this.#closed; await wait(400)) {
      try {
        await this.#connect();
        await this.request({janus: 'claim'});
        this.onreturn(false);
        return;
      } catch (error) {
        if (error.code) break; // the server is up, but has forgotten us
      }
    }
    if (!this.#closed) this.onlost();
  }

  #fail(error) {
    for (const {reject, late} of this.#waiting.values()) {
      clearTimeout(late);
      reject(error);
    }
    this.#waiting.clear();
  }

  close() {
    this.#closed = true;
    clearInterval(this.#timer);
    if (this.#socket?.readyState === WebSocket.OPEN) {
      this.request({janus: 'destroy'}).catch(() => {});
      this.#socket.close();
    }
    this.#fail(new RelayError('We have left.'));
  }
}

/** One peer connection and its handle at the server. Early candidates are queued. */
class Peer {
  #early = [];

  constructor(signalling, handle, iceServers) {
    this.signalling = signalling;
    this.handle = handle;
    this.connection = new RTCPeerConnection({iceServers, bundlePolicy: 'max-bundle'});
    this.connection.onicecandidate = ({candidate}) => {
      const {candidate: text, sdpMid, sdpMLineIndex} = candidate ?? {};
      const wire = text ? {candidate: text, sdpMid, sdpMLineIndex} : {completed: true};
      this.signalling.request({janus: 'trickle', handle_id: handle, candidate: wire}).catch(() => {});
    };
  }

  async setRemote(jsep) {
    await this.connection.setRemoteDescription(jsep);
    for (const candidate of this.#early.splice(0)) await this.#add(candidate);
  }

  async addCandidate(candidate) {
    if (this.connection.remoteDescription) await this.#add(candidate);
    else this.#early.push(candidate);
  }

  async #add(candidate) {
    if (!candidate.candidate) return;
    await this.connection.addIceCandidate(candidate).catch(() => {}); // unsupported kind
  }

  close() {
    this.connection.close();
    this.signalling.request({janus: 'detach', handle_id: this.handle}).catch(() => {});
  }
}

/**
 * The sizes in which a camera's picture is sent, for receivers that need less: each half the one before, down
 * to 320 pixels or a little more. The server wants the largest first.
 */
function sizesOf(track) {
  const {width = 0} = track.getSettings();
  const sizes = ['large', 'medium', 'small'].map((rid, step) => ({rid, scaleResolutionDownBy: 2 ** step}))
    .filter(({scaleResolutionDownBy: scale}) => width >= 320 * scale);
  return sizes.length > 1 ? {sendEncodings: sizes} : {};
}

/** Browsers play one channel of a stereo stream unless the answer asks for both. */
function wantStereo(answer, offer) {
  if (!/^a=fmtp:.*\bstereo=1/m.test(offer)) return answer;
  const opus = /^a=rtpmap:(\d+) opus\//im.exec(answer)?.[1];
  return opus ? answer.replace(new RegExp(`^(a=fmtp:${opus} .*)$`, 'm'), '$1;stereo=1') : answer;
}

/**
 * A visit to a room. Events (CustomEvent, `detail` in brackets): participant {id, name, owner} (again when
 * the name changes), gone {id}, media {id, stream}, unpublished {id}, caption {id, text, final}, returning
 * {broken}, trouble {text}, ended {text}.
 */
export class RoomVisit extends EventTarget {
  #signalling;
  #handle = 0;
  #privateId = 0;
  #token;
  #channel = null;
  #peers = new Map(); // handle -> Peer
  #feeds = new Map(); // participant -> {peer, streams}
  #known = new Map(); // participant -> name
  #over = false;
  #url;
  #stream = null;
  #rejoining = false;

  constructor({url, room, token, name, iceServers = []}) {
    super();
    this.#url = url;
    this.room = room;
    this.name = name;
    this.id = '';
    this.iceServers = iceServers;
    this.publishing = null; // RTCPeerConnection of what we send
    this.#token = splitToken(token);
    this.#dial();
  }

  #dial() {
    this.#signalling = new Signalling(this.#url, this.#token.realm);
    this.#signalling.onmessage = (message) => this.#hear(message);
    this.#signalling.onreturn = (broken) => {
      if (!this.#rejoining) this.#tell('returning', {broken});
    };
    this.#signalling.onlost = () => this.#rejoin();
  }

  #tell(type, detail) {
    if (!this.#over) this.dispatchEvent(new CustomEvent(type, {detail}));
  }

  /** Enters the room, publishes `stream` (or captions only), and subscribes to the others. */
  async join(stream) {
    this.#stream = stream;
    try {
      await this.#begin();
    } catch (error) {
      this.leave();
      throw error;
    }
  }

  async #begin() {
    await this.#signalling.open();
    this.#handle = await this.#signalling.attach();
    const joined = await this.#enter();
    this.id = joined.id;
    this.#privateId = joined.private_id;
    await this.#publish(this.#stream);
    for (const {id, display} of joined.attendees ?? []) this.#meet(id, display);
    this.#see(joined.publishers);
  }

  /** The server has forgotten us, or is gone: the same room again, where the address leads to by now. */
  async #rejoin() {
    if (this.#over || this.#rejoining) return;
    this.#rejoining = true;
    for (const id of [...this.#known.keys()]) this.#gone(id);
    for (const peer of this.#peers.values()) peer.connection.close();
    this.#peers.clear();
    this.#signalling.close();
    let why = 'The connection to the server was lost.';
    const end = Date.now() + REJOIN_MS;
    for (; Date.now() < end && !this.#over; await wait(300 + 300 * Math.random())) {
      this.#dial();
      try {
        await this.#begin();
        this.#rejoining = false;
        this.#tell('returning', {broken: false});
        return;
      } catch (error) {
        this.#signalling.close();
        why = error.message;
        if (error.code) break; // the server refuses us
      }
    }
    this.#end(why);
  }

  async #enter() {
    const {realm, room: token, pin} = this.#token;
    const request = {
      request: 'join', ptype: 'publisher', room: this.room, display: this.name, token, ...(pin && {pin}),
    };
    try {
      return (await this.#signalling.ask(this.#handle, request)).data;
    } catch (error) {
      if (error.code !== NO_SUCH_ROOM) throw error;
    }
    const create = {
      request: 'create', room: this.room, notify_joining: true, publishers: 50, videocodec: 'vp8,h264',
      bitrate: 3_000_000, fir_freq: 10, signed_tokens: token !== realm, is_private: true,
      // The secret allows closing, recording and tapping the room, so nobody gets it. With a fixed recording
      // folder nobody can have the server create another.
      secret: randomSecret(), lock_record: true, rec_dir: '/', ...(pin && {pin}),
    };
    await this.#signalling.ask(this.#handle, create).catch((error) => {
      if (error.code !== ROOM_EXISTS) throw error; // made by another participant meanwhile
    });
    return (await this.#signalling.ask(this.#handle, request)).data;
  }

  async #publish(stream) {
    const peer = this.#peer(this.#handle);
    this.publishing = peer.connection;
    for (const track of stream?.getTracks() ?? []) {
      const sizes = track.kind === 'video' ? sizesOf(track) : {};
      peer.connection.addTransceiver(track, {direction: 'sendonly', streams: [stream], ...sizes});
    }
    this.#channel = peer.connection.createDataChannel('captions');
    const text = 'Others can no longer see and hear you: the media connection failed.';
    this.#watch(peer, () => this.#tell('trouble', {text}));
    await peer.connection.setLocalDescription();
    const offer = peer.connection.localDescription;
    const {jsep} = await this.#signalling.ask(this.#handle, {request: 'configure'}, offer);
    if (!jsep) throw new RelayError('The server did not take what we wanted to send.');
    await peer.setRemote(jsep);
  }

  #peer(handle) {
    const peer = new Peer(this.#signalling, handle, this.iceServers);
    this.#peers.set(handle, peer);
    return peer;
  }

  #watch(peer, failed) {
    peer.connection.onconnectionstatechange = () => {
      if (peer.connection.connectionState === 'failed') failed();
    };
  }

  #hear(message) {
    const peer = this.#peers.get(message.sender);
    if (message.janus === 'trickle') peer?.addCandidate(message.candidate);
    else if (message.janus === 'timeout') this.#end('The server has ended our session.');
    else if (message.janus === 'event') this.#event(message, peer);
  }

  #event({plugindata, jsep}, peer) {
    const data = plugindata?.data ?? {};
    if (jsep?.type === 'offer' && peer) {
      this.#answer(peer, jsep).catch((error) => this.#tell('trouble', {text: error.message}));
    }
    if (data.joining) this.#meet(data.joining.id, data.joining.display);
    if (data.publishers) this.#see(data.publishers);
    // The server may repeat it, even for a participant who has already left.
    if (data.unpublished && data.unpublished !== 'ok') this.#forget(data.unpublished);
    if (data.leaving === 'ok' || data.kicked === this.id) this.#end('You were removed from the room.');
    else if (data.leaving || data.kicked) this.#gone(data.leaving ?? data.kicked);
    if (data.videoroom === 'destroyed') this.#end('The room was closed.');
  }

  #meet(id, display) {
    const {name, owner} = readDisplay(display, id); // a program may settle its name only when it publishes
    if (id === this.id || this.#known.get(id) === name) return;
    this.#known.set(id, name);
    this.#tell('participant', {id, name, owner});
  }

  #see(publishers = []) {
    for (const {id, display, streams = []} of publishers) {
      if (id === this.id) continue;
      this.#meet(id, display);
      const shape = streams.map(({mid, type}) => `${mid} ${type}`).join();
      if (this.#feeds.get(id)?.shape === shape) continue;
      this.#forget(id, true);
      this.#subscribe(id, shape).catch((error) => {
        if (this.#feeds.get(id)?.shape !== shape) return; // it left meanwhile
        this.#forget(id);
        this.#tell('trouble', {text: `Cannot show ${this.#known.get(id)}: ${error.message}`});
      });
    }
  }

  async #subscribe(id, shape, again = true) {
    const feed = {shape, peer: null};
    this.#feeds.set(id, feed);
    const handle = await this.#signalling.attach();
    const peer = feed.peer = this.#peer(handle);
    const {connection} = peer;
    const stream = new MediaStream();
    connection.ontrack = ({track}) => {
      stream.addTrack(track);
      this.#tell('media', {id, stream});
    };
    const listen = (channel) => {
      channel.binaryType = 'arraybuffer';
      channel.onmessage = ({data}) => {
        const caption = parseCaption(typeof data === 'string' ? data : new TextDecoder().decode(data));
        if (caption) this.#tell('caption', {id, ...caption});
      };
    };
    connection.ondatachannel = ({channel}) => listen(channel);
    this.#watch(peer, () => {
      if (this.#feeds.get(id) !== feed) return;
      this.#forget(id);
      if (again) this.#subscribe(id, shape, false).catch(() => {});
      else this.#tell('trouble', {text: `The connection to ${this.#known.get(id)}'s media failed.`});
    });
    const {room: token, pin} = this.#token;
    const {jsep} = await this.#signalling.ask(handle, {
      request: 'join', ptype: 'subscriber', room: this.room, private_id: this.#privateId, token,
      streams: [{feed: id}], ...(pin && {pin}),
    });
    if (this.#feeds.get(id) !== feed) { // it left during the request
      this.#drop(peer);
      return;
    }
    // The server sends nothing on data channels unless we open this one.
    if (/^m=application/m.test(jsep.sdp)) {
      peer.opener = () => listen(connection.createDataChannel('JanusDataChannel'));
    }
    await this.#answer(peer, jsep);
  }

  async #answer(peer, jsep) {
    const {connection} = peer;
    await peer.setRemote(jsep);
    peer.opener?.();
    peer.opener = null;
    const answer = await connection.createAnswer();
    answer.sdp = wantStereo(answer.sdp, jsep.sdp);
    await connection.setLocalDescription(answer);
    await this.#signalling.ask(peer.handle, {request: 'start'}, connection.localDescription);
  }

  #drop(peer) {
    this.#peers.delete(peer.handle);
    peer.close();
  }

  #forget(id, quietly = false) {
    const feed = this.#feeds.get(id);
    if (!feed) return;
    this.#feeds.delete(id);
    if (feed.peer) this.#drop(feed.peer);
    if (!quietly) this.#tell('unpublished', {id});
  }

  #gone(id) {
    this.#forget(id);
    if (this.#known.delete(id)) this.#tell('gone', {id});
  }

  /** Sends a caption to everyone; false if the channel is not open (yet). */
  caption(text, final) {
    if (this.#channel?.readyState !== 'open') return false;
    this.#channel.send(writeCaption(text, final));
    return true;
  }

  /** The peer connection for each participant that we see or hear: [[id, name, RTCPeerConnection]]. */
  connections() {
    return [...this.#feeds].filter(([, feed]) => feed.peer)
      .map(([id, feed]) => [id, this.#known.get(id), feed.peer.connection]);
  }

  #end(text) {
    this.#tell('ended', {text});
    this.leave();
  }

  leave() {
    if (this.#over) return;
    this.#over = true;
    if (this.id) this.#signalling.ask(this.#handle, {request: 'leave'}).catch(() => {});
    for (const peer of this.#peers.values()) peer.connection.close();
    this.#signalling.close();
  }
}
