// What the page knows of the fleet, kept in the browser only. Every bound is
// fixed (events, plot points, seen serial numbers), so a noisy fleet cannot
// grow the page without limit.
import type { Description, DeviceSchema, DpSchema } from './protocol/schema';
import { isNumeric } from './protocol/schema';
import type { Health, SimEvent, Status, Uplink, Dps } from './protocol/uplink';
import type { Answer, Pending } from './protocol/answers';
import { matchAnswer } from './protocol/answers';
import { refusalWords } from './protocol/refusals';

export const PLOT_WINDOW_MS = 15 * 60 * 1000;
const MAX_EVENTS = 500;
const MAX_POINTS = 3000; // per DP: one value every 0.3 s over 15 minutes
const SERNO_MEMORY = 64;
export const ANSWER_TIMEOUT_MS = 10000;

export type Presence = 'unknown' | 'online' | 'offline' | 'silent';

export interface DpState {
  value: unknown;
  changedAt: number; // ms since the epoch, when the value last changed
}

export interface DeviceState {
  id: string;
  presence: Presence;
  dps: Map<string, DpState>;
}

export interface GatewayState {
  id: string;
  status: Status | null;
  health: Health | null;
  lastSeen: number; // ms: the latest live message of the gateway, or the time its health document was made
  devices: Map<string, DeviceState>;
  sernos: number[]; // the latest serial numbers, for de-duplication (docs/wire-protocol.md, 2)
}

export type EventKind = 'presence' | 'refusal' | 'probe';

export interface EventRow {
  at: number;
  gw: string;
  kind: EventKind;
  text: string;
}

export interface Series {
  t: number[]; // seconds since the epoch, as uPlot takes them
  v: number[];
}

export class Store {
  readonly gateways = new Map<string, GatewayState>();
  events: EventRow[] = []; // newest first
  readonly series = new Map<string, Series>(); // key: gw/device/dp
  readonly answers = new Map<string, Answer>(); // by command sn
  pending: Pending[] = [];
  description: Description | null = null;
  changed = 0; // bumped on every change; the view redraws when it moved

  gateway(id: string): GatewayState {
    let g = this.gateways.get(id);
    if (!g) {
      g = { id, status: null, health: null, lastSeen: 0, devices: new Map(), sernos: [] };
      this.gateways.set(id, g);
    }
    return g;
  }

  device(g: GatewayState, id: string): DeviceState {
    let d = g.devices.get(id);
    if (!d) {
      d = { id, presence: 'unknown', dps: new Map() };
      g.devices.set(id, d);
    }
    return d;
  }

  /** The schema of a device of the described gateway; undefined for gateways without a description. */
  schemaOf(gw: string, device: string): DeviceSchema | undefined {
    if (!this.description || this.description.gatewayId !== gw) return undefined;
    return this.description.devices.find((d) => d.id === device);
  }

  dpSchema(gw: string, device: string, dp: string): DpSchema | undefined {
    return this.schemaOf(gw, device)?.dps.find((d) => String(d.id) === dp);
  }

  private event(at: number, gw: string, kind: EventKind, text: string): void {
    this.events.unshift({ at, gw, kind, text });
    if (this.events.length > MAX_EVENTS) this.events.length = MAX_EVENTS;
  }

  /** now: 0 for a retained status, which tells nothing of when the gateway was last heard. */
  onStatus(gw: string, status: Status | null, now: number): void {
    const g = this.gateway(gw);
    // a new run numbers from 0 again: after an offline status, or under a new session number
    const newSession = status?.session !== undefined && g.status?.session !== undefined && status.session !== g.status.session;
    if ((status?.online && g.status?.online === false) || newSession) g.sernos = [];
    g.status = status;
    g.lastSeen = Math.max(g.lastSeen, now);
    this.changed++;
  }

  /** now: 0 for a retained document; its own time still says when the gateway made it. */
  onHealth(gw: string, health: Health | null, now: number): void {
    const g = this.gateway(gw);
    g.health = health;
    g.lastSeen = Math.max(g.lastSeen, now, (health?.time ?? 0) * 1000);
    this.changed++;
  }

  private setValues(gw: string, device: string, dps: Dps, now: number): void {
    const g = this.gateway(gw);
    const d = this.device(g, device);
    for (const [key, value] of Object.entries(dps)) {
      const old = d.dps.get(key);
      if (!old || JSON.stringify(old.value) !== JSON.stringify(value)) d.dps.set(key, { value, changedAt: now });
      const schema = this.dpSchema(gw, device, key);
      if (typeof value === 'number' && (schema ? isNumeric(schema) : true)) this.plot(`${gw}/${device}/${key}`, now, value);
    }
  }

  private plot(key: string, now: number, value: number): void {
    let s = this.series.get(key);
    if (!s) {
      s = { t: [], v: [] };
      this.series.set(key, s);
    }
    s.t.push(now / 1000);
    s.v.push(value);
    const oldest = (now - PLOT_WINDOW_MS) / 1000;
    let drop = 0;
    while (drop < s.t.length && (s.t[drop] < oldest || s.t.length - drop > MAX_POINTS)) drop++;
    if (drop > 0) {
      s.t.splice(0, drop);
      s.v.splice(0, drop);
    }
  }

  /** One message of <root>/<gw>/up. Returns false for a duplicate (same serno, delivered again). */
  onUplink(gw: string, up: Uplink, now: number): boolean {
    const g = this.gateway(gw);
    g.lastSeen = now;
    this.changed++;
    if (up.kind === 'invalid') return true;
    if (g.sernos.includes(up.serno)) return false;
    g.sernos.push(up.serno);
    if (g.sernos.length > SERNO_MEMORY) g.sernos.shift();
    switch (up.kind) {
      case 'report':
      case 'echo':
      case 'multi': {
        const id = up.cid ?? gw;
        this.setValues(gw, id, up.dps, now);
        const d = this.device(g, id);
        if (d.presence === 'unknown') d.presence = 'online'; // it answered: it is reachable
        break;
      }
      case 'presence':
        for (const id of up.online) this.device(g, id).presence = 'online';
        for (const id of up.offline) this.device(g, id).presence = 'offline';
        this.event(now, gw, 'presence', [up.online.length ? `online: ${up.online.join(', ')}` : '', up.offline.length ? `offline: ${up.offline.join(', ')}` : ''].filter(Boolean).join('; '));
        break;
      case 'refusal': {
        const dev = up.devId === undefined ? '' : ` ${JSON.stringify(up.devId)}`;
        const dp = up.dp !== undefined ? ` DP ${up.dp}` : '';
        this.event(now, gw, 'refusal', `${up.cmd} command${up.sn !== undefined ? ` ${up.sn}` : ''} refused${dev}${dp}: ${refusalWords(up.code)} (${up.reason})`);
        break;
      }
      default:
        break;
    }
    this.answer(gw, up);
    return true;
  }

  private answer(gw: string, up: Uplink): void {
    const hit = matchAnswer(gw, up, this.pending);
    if (!hit) return;
    this.answers.set(hit.answer.sn, hit.answer);
    if (hit.answer.done) this.pending = this.pending.filter((p) => p !== hit.pending);
  }

  onSimEvent(gw: string, ev: SimEvent, now: number): void {
    const g = this.gateway(gw);
    this.changed++;
    if (ev.kind !== 'probe') return;
    const d = this.device(g, ev.cid);
    if (!ev.answered) d.presence = 'silent';
    this.event(now, gw, 'probe', ev.answered ? `${ev.cid} answered the heartbeat probe` : `${ev.cid} did not answer the heartbeat probe (silent)`);
  }

  /** A command went out: its answer is awaited under its sn. */
  asked(p: Pending): void {
    this.pending.push(p);
    this.answers.set(p.sn, { sn: p.sn, state: 'answered', text: 'sent, waiting for the answer', done: false });
    this.changed++;
  }

  /** A command that could not go out: shown where it was asked, never awaited. */
  notSent(sn: string, why: string): void {
    this.answers.set(sn, { sn, state: 'answered', text: why, done: true });
    this.changed++;
  }

  /** Commands without an answer in time say so (the gateway may be away: commands are not kept, 2). */
  expire(now: number): void {
    const late = this.pending.filter((p) => now - p.sentAt > ANSWER_TIMEOUT_MS);
    if (late.length === 0) return;
    for (const p of late) {
      const prior = this.answers.get(p.sn);
      const partial = prior && prior.text.startsWith('answered by') ? `${prior.text}; ` : '';
      this.answers.set(p.sn, { sn: p.sn, state: 'answered', text: `${partial}no answer within ${ANSWER_TIMEOUT_MS / 1000} s`, done: true });
    }
    this.pending = this.pending.filter((p) => !late.includes(p));
    this.changed++;
  }
}
