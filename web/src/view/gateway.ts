// One gateway: its devices with presence, and each DP's name, value, last
// change, control and the answer to the last command asked from that row.
import type { Store, DeviceState } from '../store';
import type { DpSchema } from '../protocol/schema';
import { scaled } from '../protocol/schema';
import type { Command } from '../protocol/commands';
import { dpCommand, queryCommand } from '../protocol/commands';
import type { Asked } from '../protocol/answers';
import { el, setText, setAttr, clock, slug } from './dom';
import { makeControl, type Control } from './controls';

export type Send = (gw: string, command: Command, asked: Asked, sn: string) => void;

interface DpRow {
  tr: HTMLTableRowElement;
  value: HTMLTableCellElement;
  changed: HTMLTableCellElement;
  answer: HTMLElement;
  control: Control | null;
  sn: string | null; // the last command asked from this row
}

interface Card {
  root: HTMLElement;
  presence: HTMLElement;
  answer: HTMLElement;
  body: HTMLTableSectionElement;
  rows: Map<string, DpRow>;
  sn: string | null;
}

function valueText(dp: DpSchema | undefined, v: unknown): string {
  if (v === undefined) return dp?.mode === 'wr' ? '(write-only)' : '-';
  if (typeof v === 'number') return scaled(dp, v);
  if (typeof v === 'string') return dp?.prop === 'str' || dp?.prop === 'enum' ? (v === '' ? '""' : v) : v;
  return JSON.stringify(v);
}

export class GatewayView {
  readonly root = el('section', { class: 'panel gateway', 'aria-labelledby': 'gateway-title' });
  private readonly title = el('h2', { id: 'gateway-title' }, 'Gateway');
  private readonly list = el('div', { class: 'devices' });
  private cards = new Map<string, Card>();
  private gw: string | null = null;

  constructor(private readonly send: Send, private readonly nextSn: () => string) {
    this.root.append(this.title, this.list);
  }

  private card(store: Store, gw: string, d: DeviceState): Card {
    let c = this.cards.get(d.id);
    if (c) return c;
    const isGateway = d.id === gw;
    const presence = el('span', { class: 'presence', 'data-presence': d.presence });
    const query = el('button', { type: 'button' }, 'Query');
    const answer = el('span', { class: 'answer', role: 'status', 'aria-live': 'polite' });
    const body = el('tbody');
    const table = el('table', { class: 'dps' },
      el('thead', {}, el('tr', {}, ...['DP', 'Value', 'Changed', 'Set', 'Answer'].map((h) => el('th', { scope: 'col' }, h)))), body);
    const root = el('article', { class: 'device', id: `dev-${slug(d.id)}`, 'data-device': d.id },
      el('header', {}, el('h3', {}, isGateway ? `${d.id} (gateway)` : d.id), presence, query, answer),
      el('div', { class: 'scroll' }, table));
    c = { root, presence, answer, body, rows: new Map(), sn: null };
    const card = c;
    query.addEventListener('click', () => {
      const sn = this.nextSn();
      card.sn = sn;
      const cids = isGateway ? null : [d.id];
      this.send(gw, queryCommand(cids, [], sn), { kind: 'query', cids: [isGateway ? null : d.id] }, sn);
    });
    this.cards.set(d.id, c);
    // described devices first in description order, then others by id
    const order = (store.description?.gatewayId === gw ? store.description.devices.map((x) => x.id) : []);
    const rank = (id: string) => { const i = order.indexOf(id); return i < 0 ? order.length : i; };
    const ids = [...this.cards.keys()].sort((a, b) => rank(a) - rank(b) || a.localeCompare(b));
    this.list.insertBefore(root, this.cards.get(ids[ids.indexOf(d.id) + 1] ?? '')?.root ?? null);
    return c;
  }

  private dpRow(store: Store, gw: string, device: string, c: Card, key: string): DpRow {
    let r = c.rows.get(key);
    if (r) return r;
    const dp = store.dpSchema(gw, device, key);
    const name = dp?.name ? `${dp.name} (${key})` : `DP ${key}`;
    const value = el('td', { class: 'value' });
    const changed = el('td', { class: 'changed' });
    const answer = el('span', { class: 'answer', role: 'status', 'aria-live': 'polite' });
    const row: DpRow = { tr: el('tr', { 'data-dp': key }), value, changed, answer, control: null, sn: null };
    const devId = device === gw ? null : device;
    const control = dp ? makeControl(dp, `${device} ${name}`, (v) => {
      const sn = this.nextSn();
      row.sn = sn;
      this.send(gw, dpCommand(devId, { [dp.id]: v }, sn), { kind: 'dp', devId, dps: [key] }, sn);
    }, (why) => { row.sn = null; setText(answer, `not sent: ${why}`); }) : null;
    row.control = control;
    row.tr.append(el('th', { scope: 'row' }, name), value, changed, el('td', {}, control?.root ?? ''), el('td', {}, answer));
    c.rows.set(key, row);
    // rows in DP number order
    const keys = [...c.rows.keys()].sort((a, b) => Number(a) - Number(b));
    c.body.insertBefore(row.tr, c.rows.get(keys[keys.indexOf(key) + 1] ?? '')?.tr ?? null);
    return row;
  }

  render(store: Store, gw: string | null): void {
    if (gw !== this.gw) {
      this.gw = gw;
      this.cards = new Map();
      this.list.replaceChildren();
    }
    setText(this.title, gw ? `Gateway ${gw}` : 'Gateway (choose one in the fleet)');
    if (!gw) return;
    const g = store.gateway(gw);
    const described = store.description?.gatewayId === gw ? store.description.devices : [];
    for (const schema of described) {
      const d = store.device(g, schema.id);
      const c = this.card(store, gw, d);
      for (const dp of schema.dps) if (dp.type !== 'file') this.dpRow(store, gw, d.id, c, String(dp.id));
    }
    for (const d of g.devices.values()) {
      const c = this.card(store, gw, d);
      setText(c.presence, d.id === gw ? 'gateway' : d.presence);
      setAttr(c.presence, 'data-presence', d.id === gw ? 'online' : d.presence);
      const a = c.sn ? store.answers.get(c.sn) : undefined;
      setText(c.answer, a ? a.text : '');
      for (const key of d.dps.keys()) this.dpRow(store, gw, d.id, c, key);
      for (const [key, row] of c.rows) {
        const st = d.dps.get(key);
        const dp = store.dpSchema(gw, d.id, key);
        setText(row.value, valueText(dp, st?.value));
        setText(row.changed, st ? clock(st.changedAt) : '-');
        const ans = row.sn ? store.answers.get(row.sn) : undefined;
        row.control?.show(st?.value, ans !== undefined && !ans.done);
        if (ans) {
          setText(row.answer, ans.text);
          setAttr(row.answer, 'data-state', ans.state);
        }
      }
    }
  }
}
