// Decoding what gateways publish (docs/wire-protocol.md, 3.1 to 6; the health
// document of docs/metrics.md; the demo simulator's events). Every decoder
// takes the payload text and never throws: a message that does not fit gives
// {kind: 'invalid'} with the reason, so one bad publisher cannot stop the page.

export type Dps = Record<string, unknown>;

export type Uplink =
  | { kind: 'report'; serno: number; cid: string | null; dps: Dps }
  | { kind: 'multi'; serno: number; cid: string | null; mbid: string; dps: Dps }
  | { kind: 'echo'; serno: number; cid: string | null; dps: Dps }
  | { kind: 'presence'; serno: number; online: string[]; offline: string[] }
  | {
      kind: 'refusal';
      serno: number;
      cmd: string;
      sn?: number | string;
      devId?: unknown;
      dp?: string;
      code: string;
      reason: string;
    }
  | { kind: 'group'; serno: number; action: number; rets: number[]; gid: string }
  | { kind: 'scene'; serno: number; action: number; cids: string[]; rets: number[]; sid: string; gid: string }
  | { kind: 'other'; serno: number; pro: number }
  | { kind: 'invalid'; why: string };

type Obj = Record<string, unknown>;

function parseObject(text: string): Obj | null {
  try {
    const v: unknown = JSON.parse(text);
    return typeof v === 'object' && v !== null && !Array.isArray(v) ? (v as Obj) : null;
  } catch {
    return null;
  }
}

const strings = (v: unknown): string[] => (Array.isArray(v) ? v.filter((x): x is string => typeof x === 'string') : []);
const numbers = (v: unknown): number[] => (Array.isArray(v) ? v.filter((x): x is number => typeof x === 'number') : []);
const text = (v: unknown): string => (typeof v === 'string' ? v : '');
// A report without "cid" is the gateway's own DPs (4.1): null stands for the gateway.
const cidOf = (v: unknown): string | null => (typeof v === 'string' ? v : null);

export function decodeUplink(payload: string): Uplink {
  const m = parseObject(payload);
  if (!m) return { kind: 'invalid', why: 'not a JSON object' };
  const { serno, pro, data } = m;
  if (typeof serno !== 'number' || typeof pro !== 'number') return { kind: 'invalid', why: 'no serno or pro' };
  if (typeof data !== 'object' || data === null || Array.isArray(data)) return { kind: 'invalid', why: 'data is not an object' };
  const d = data as Obj;
  switch (pro) {
    case 4:
    case 16: {
      if (typeof d.dps !== 'object' || d.dps === null || Array.isArray(d.dps)) return { kind: 'invalid', why: 'dps is not an object' };
      const dps = d.dps as Dps;
      // A multi-DP answer is the command sent back as it came (5.1): it names its device in devId.
      if (pro === 4 && d.ctype === 2) return { kind: 'multi', serno, cid: cidOf(d.devId ?? d.cid), mbid: text(d.mbid), dps };
      return { kind: pro === 4 ? 'report' : 'echo', serno, cid: cidOf(d.cid), dps };
    }
    case 25:
      return { kind: 'presence', serno, online: strings(d.online), offline: strings(d.offline) };
    case 64: {
      const r: Uplink = { kind: 'refusal', serno, cmd: text(d.cmd), code: text(d.code), reason: text(d.reason) };
      if (typeof d.sn === 'number' || typeof d.sn === 'string') r.sn = d.sn;
      if ('devId' in d) r.devId = d.devId;
      if (typeof d.dp === 'string') r.dp = d.dp;
      return r;
    }
    case 203:
      return { kind: 'group', serno, action: Number(d.action), rets: numbers(d.rets), gid: text(d.gid) };
    case 205:
      return {
        kind: 'scene',
        serno,
        action: Number(d.action),
        cids: strings(d.cids),
        rets: numbers(d.rets),
        sid: text(d.sid),
        gid: text(d.gid),
      };
    default:
      return { kind: 'other', serno, pro };
  }
}

/** The retained status (3.1): online, and the session number when the gateway gives one. */
export interface Status {
  online: boolean;
  session?: number;
}

export function decodeStatus(payload: string): Status | null {
  const m = parseObject(payload);
  if (!m || typeof m.online !== 'boolean') return null;
  const s: Status = { online: m.online };
  if (typeof m.session === 'number') s.session = m.session;
  return s;
}

/** What the fleet view shows of a health document (docs/metrics.md, section 2). */
export interface Health {
  time: number; // POSIX seconds, when the gateway made it
  brokerConnected: boolean;
  connects: number;
  pending: number;
  devices: number;
  online: number;
}

export function decodeHealth(payload: string): Health | null {
  const m = parseObject(payload);
  const registry = m?.registry as Obj | undefined;
  if (!m || typeof registry !== 'object' || registry === null) return null;
  const mqtt = (typeof m.mqtt === 'object' && m.mqtt !== null ? m.mqtt : {}) as Obj;
  const n = (v: unknown) => (typeof v === 'number' ? v : 0);
  return {
    time: n(m.time),
    brokerConnected: mqtt.connected === true,
    connects: n(mqtt.connects),
    pending: n(registry.pending),
    devices: n(registry.devices),
    online: n(registry.online),
  };
}

/** The demo simulator's events on <root>/<gw>/sim/event (docs/wire-protocol.md, "The demo's simulator topics"). */
export type SimEvent =
  | { kind: 'probe'; cid: string; answered: boolean }
  | { kind: 'control'; cid: string; ok: boolean; silent: boolean };

export function decodeSimEvent(payload: string): SimEvent | null {
  const m = parseObject(payload);
  if (!m) return null;
  if (m.event === 'probe') return { kind: 'probe', cid: text(m.cid), answered: m.answered === true };
  if (m.event === 'control') return { kind: 'control', cid: text(m.cid), ok: m.ok === true, silent: m.silent === true };
  return null;
}

/** "<root>/<gw>/<leaf>" split; null for topics of another root. */
export function splitTopic(root: string, topic: string): { gw: string; leaf: string } | null {
  const prefix = root + '/';
  if (!topic.startsWith(prefix)) return null;
  const rest = topic.slice(prefix.length);
  const slash = rest.indexOf('/');
  if (slash <= 0) return null;
  return { gw: rest.slice(0, slash), leaf: rest.slice(slash + 1) };
}
