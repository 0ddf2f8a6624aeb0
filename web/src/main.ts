// The web console: loads the description, opens the MQTT link, feeds the
// store, and redraws at most once per animation frame.
import './style.css';
import type { MqttClient } from 'mqtt';
import { readDescription } from './protocol/schema';
import { decodeHealth, decodeSimEvent, decodeStatus, decodeUplink, splitTopic } from './protocol/uplink';
import { makeSnSource, queryCommand } from './protocol/commands';
import type { Command } from './protocol/commands';
import type { Asked } from './protocol/answers';
import { Store } from './store';
import { brokerUrl, loadLogin, openLink, saveLogin } from './link';
import type { LinkState } from './link';
import { el, setText, setAttr } from './view/dom';
import { FleetView } from './view/fleet';
import { GatewayView } from './view/gateway';
import { OperationsView } from './view/operations';
import { PlotsView } from './view/plots';
import { EventsView } from './view/events';
import { LoginView } from './view/login';
import { Meter } from './meter';

const store = new Store();
const meter = new Meter();
const nextSn = makeSnSource(`web${Math.random().toString(36).slice(2, 6)}`);
let client: MqttClient | null = null;
let root = 'sf';
let selected: string | null = new URL(location.href).searchParams.get('gw');
let frame = 0;
const queried = new Set<string>(); // gateways whose devices were queried in this session

function send(gw: string, command: Command, asked: Asked, sn: string): void {
  if (!client?.connected) {
    // the gateway keeps no command for later (clean session): say so rather than queue it
    store.notSent(sn, 'not sent: the broker is not connected');
  } else {
    store.asked({ gw, sn, asked, sentAt: Date.now(), answered: [] });
    client.publish(`${root}/${gw}/${command.leaf}`, command.payload, { qos: 1 });
  }
  redraw();
}

/** Fill the values at once: every device of the described gateway answers a query (5.4). */
function queryAll(gw: string): void {
  if (!store.description || store.description.gatewayId !== gw || queried.has(gw)) return;
  queried.add(gw);
  const subs = store.description.devices.slice(1).map((d) => d.id);
  let sn = nextSn();
  send(gw, queryCommand(null, [], sn), { kind: 'query', cids: [null] }, sn);
  sn = nextSn();
  if (subs.length) send(gw, queryCommand(subs, [], sn), { kind: 'query', cids: subs }, sn);
}

const link = el('p', { id: 'link', role: 'status', 'aria-live': 'polite' });
const fleet = new FleetView((gw) => { selected = gw; redraw(); });
const gateway = new GatewayView(send, nextSn);
const operations = new OperationsView(send, nextSn);
const plots = new PlotsView();
const events = new EventsView(() => redraw());
const login = new LoginView(loadLogin(), (l) => { saveLogin(l); connect(); });

function render(): void {
  frame = 0;
  const now = Date.now();
  fleet.render(store, selected, now);
  gateway.render(store, selected);
  operations.render(store, selected);
  plots.render(store, selected, now);
  events.render(store);
  // a task posted from an animation frame runs once that frame is painted
  setTimeout(() => meter.drawn(performance.now()), 0);
}

function redraw(): void {
  if (!frame) frame = requestAnimationFrame(render);
}

function onMessage(topic: string, payload: string, retained: boolean): void {
  meter.arrived(performance.now());
  const at = splitTopic(root, topic);
  if (!at) return;
  const now = Date.now();
  if (at.leaf === 'status') {
    const status = decodeStatus(payload);
    store.onStatus(at.gw, status, retained ? 0 : now);
    if (status?.online) queryAll(at.gw);
    else queried.delete(at.gw); // when it comes back, its values are asked again
    if (!selected && store.description?.gatewayId === at.gw) selected = at.gw;
  } else if (at.leaf === 'metrics') {
    store.onHealth(at.gw, decodeHealth(payload), retained ? 0 : now);
  } else if (at.leaf === 'up') {
    store.onUplink(at.gw, decodeUplink(payload), now);
  } else if (at.leaf === 'sim/event') {
    const ev = decodeSimEvent(payload);
    if (ev) store.onSimEvent(at.gw, ev, now);
  }
  redraw();
}

function onState(state: LinkState, detail: string): void {
  setText(link, `broker ${state}: ${detail}`);
  setAttr(link, 'data-state', state);
  if (state !== 'connected') queried.clear(); // a new session asks the values again
}

function connect(): void {
  client?.end(true);
  client = openLink(brokerUrl(location), root, loadLogin(), { onMessage, onState, onSubscribed: () => redraw() });
}

async function start(): Promise<void> {
  const app = document.getElementById('app')!;
  app.append(
    el('header', { class: 'top' }, el('h1', {}, 'smart frame console'), link, login.root),
    el('main', { class: 'layout' }, fleet.root, gateway.root, operations.root, plots.root, events.root),
  );
  try {
    const res = await fetch('description.json', { cache: 'no-store' });
    if (res.ok) store.description = readDescription(await res.json());
  } catch {
    // served without a description (or from elsewhere): gateways show DP numbers
  }
  root = new URL(location.href).searchParams.get('root') ?? store.description?.root ?? 'sf';
  if (!selected && store.description) selected = store.description.gatewayId;
  connect();
  setInterval(() => { store.expire(Date.now()); redraw(); }, 1000);
  redraw();
}

// For the tests and the benchmark: the store and the draw latencies, read-only by convention.
(window as unknown as { sfConsole: unknown }).sfConsole = { store, meter };
void start();
