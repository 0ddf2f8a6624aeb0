// Numeric DPs of the shown gateway over the last 15 minutes, one small uPlot
// chart each. Points are kept by the store; charts are redrawn at most once a
// second, as a plot of minutes gains nothing from more.
import uPlot from 'uplot';
import 'uplot/dist/uPlot.min.css';
import type { Store } from '../store';
import { PLOT_WINDOW_MS } from '../store';
import { el, slug } from './dom';

const REDRAW_MS = 1000;

export class PlotsView {
  readonly root: HTMLElement;
  private readonly grid = el('div', { class: 'plots' });
  private charts = new Map<string, { box: HTMLElement; plot: uPlot }>();
  private gw: string | null = null;
  private last = 0;

  constructor() {
    this.root = el('section', { class: 'panel plots-panel', 'aria-labelledby': 'plots-title' },
      el('h2', { id: 'plots-title' }, 'Plots (last 15 minutes)'), this.grid);
  }

  private width(): number {
    return Math.max(200, Math.min(560, this.grid.clientWidth - 8));
  }

  render(store: Store, gw: string | null, now: number): void {
    if (gw !== this.gw) {
      for (const c of this.charts.values()) c.plot.destroy();
      this.charts = new Map();
      this.grid.replaceChildren();
      this.gw = gw;
      this.last = 0;
    }
    if (!gw || now - this.last < REDRAW_MS) return;
    this.last = now;
    const prefix = `${gw}/`;
    const width = this.width();
    const from = (now - PLOT_WINDOW_MS) / 1000;
    for (const [key, s] of store.series) {
      if (!key.startsWith(prefix) || s.t.length === 0) continue;
      const [, device, dp] = key.split('/');
      let c = this.charts.get(key);
      if (!c) {
        const schema = store.dpSchema(gw, device, dp);
        const title = `${device} ${schema?.name || `DP ${dp}`}`;
        const box = el('figure', { class: 'plot', id: `plot-${slug(device)}-${slug(dp)}`, 'aria-label': `plot of ${title}` });
        this.grid.append(box);
        const plot = new uPlot({
          title, width, height: 160,
          scales: { x: { time: true } },
          series: [{}, { label: schema?.name || `DP ${dp}`, stroke: '#1565c0', width: 2, points: { show: true, size: 5 } }],
          legend: { show: false },
        }, [[], []], box);
        c = { box, plot };
        this.charts.set(key, c);
      }
      if (c.plot.width !== width) c.plot.setSize({ width, height: 160 });
      // drawn as people read the value: 215 with scale 1 is 21.5
      const schema = store.dpSchema(gw, device, dp);
      const factor = schema?.prop === 'value' ? 10 ** schema.scale : 1;
      const v = factor === 1 ? s.v : s.v.map((x) => x / factor);
      c.plot.setData([[...s.t, now / 1000], [...v, v[v.length - 1]]], false);
      c.plot.setScale('x', { min: from, max: now / 1000 });
    }
  }
}
