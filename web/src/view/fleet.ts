// The fleet: one row per gateway seen on <root>/+/status (or publishing at
// all), with its status and the health document's summary.
import type { Store, GatewayState } from '../store';
import { el, setText, setAttr, ago, slug } from './dom';

interface Row {
  tr: HTMLTableRowElement;
  button: HTMLButtonElement;
  cells: HTMLTableCellElement[];
}

export class FleetView {
  private readonly rows = new Map<string, Row>();
  private readonly body = el('tbody');
  readonly root: HTMLElement;

  constructor(private readonly select: (gw: string) => void) {
    const head = el('tr', {}, ...['Gateway', 'State', 'Session', 'Broker', 'Pending', 'Devices online', 'Last seen'].map((h) => el('th', { scope: 'col' }, h)));
    this.root = el('section', { class: 'panel fleet', 'aria-labelledby': 'fleet-title' },
      el('h2', { id: 'fleet-title' }, 'Fleet'),
      el('div', { class: 'scroll' }, el('table', { id: 'fleet' }, el('thead', {}, head), this.body)));
  }

  private row(g: GatewayState): Row {
    let r = this.rows.get(g.id);
    if (r) return r;
    const button = el('button', { type: 'button', class: 'link' }, g.id);
    button.addEventListener('click', () => this.select(g.id));
    const cells = Array.from({ length: 6 }, () => el('td'));
    const tr = el('tr', { id: `gw-${slug(g.id)}`, 'data-gw': g.id }, el('th', { scope: 'row' }, button), ...cells);
    r = { tr, button, cells };
    this.rows.set(g.id, r);
    // keep rows in id order: a fleet is read by name
    const after = [...this.rows.keys()].sort().indexOf(g.id);
    const next = this.body.children[after] ?? null;
    this.body.insertBefore(tr, next);
    return r;
  }

  render(store: Store, selected: string | null, now: number): void {
    for (const g of store.gateways.values()) {
      const r = this.row(g);
      const state = g.status === null ? 'unknown' : g.status.online ? 'online' : 'offline';
      const h = g.health;
      const values = [
        state,
        g.status?.session !== undefined ? String(g.status.session) : '-',
        h ? (h.brokerConnected ? `connected (${h.connects} session${h.connects === 1 ? '' : 's'})` : 'disconnected') : '-',
        h ? String(h.pending) : '-',
        h ? `${h.online}/${h.devices}` : '-',
        ago(g.lastSeen, now),
      ];
      values.forEach((v, i) => setText(r.cells[i], v));
      setAttr(r.cells[0], 'class', `state ${state}`);
      setAttr(r.tr, 'aria-selected', String(selected === g.id));
      setAttr(r.button, 'aria-pressed', String(selected === g.id));
    }
  }
}
