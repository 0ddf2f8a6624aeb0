// Presence batches, refusals and probes, newest first, filtered by kind and
// by a word. Only the first rows are drawn: the store keeps 500 at most.
import type { Store, EventKind } from '../store';
import { el, clock } from './dom';

const SHOWN = 200;

export class EventsView {
  readonly root: HTMLElement;
  private readonly list = el('ol', { id: 'events', class: 'events' });
  private readonly kind = el('select', { id: 'events-kind', 'aria-label': 'kind of event' },
    ...['all', 'presence', 'refusal', 'probe'].map((k) => el('option', { value: k }, k)));
  private readonly word = el('input', { id: 'events-filter', type: 'search', placeholder: 'filter', 'aria-label': 'filter events' });
  private drawn = '';

  constructor(redraw: () => void) {
    this.kind.addEventListener('change', redraw);
    this.word.addEventListener('input', redraw);
    this.root = el('section', { class: 'panel events-panel', 'aria-labelledby': 'events-title' },
      el('h2', { id: 'events-title' }, 'Events'), el('div', { class: 'row' }, this.kind, this.word), this.list);
  }

  render(store: Store): void {
    const kind = this.kind.value as EventKind | 'all';
    const word = this.word.value.trim().toLowerCase();
    const rows = store.events
      .filter((e) => (kind === 'all' || e.kind === kind) && (!word || `${e.gw} ${e.text}`.toLowerCase().includes(word)))
      .slice(0, SHOWN);
    const key = `${kind}|${word}|${rows.length}|${rows[0]?.at}|${rows[0]?.text}|${store.events.length}`;
    if (key === this.drawn) return;
    this.drawn = key;
    this.list.replaceChildren(...rows.map((e) =>
      el('li', { 'data-kind': e.kind }, el('time', {}, clock(e.at)), ' ', el('span', { class: `kind ${e.kind}` }, e.kind), ` ${e.gw}: ${e.text}`)));
  }
}
