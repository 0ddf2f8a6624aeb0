// The page's MQTT connection, over WebSocket with MQTT.js. The broker's
// address is ?broker=ws://HOST:PORT when given, else the relay of the server
// that served the page (/mqtt on the same address), so nothing is typed in.
// Credentials are the user's own, kept in sessionStorage only (never in the
// bundle, never in localStorage); MQTT.js reconnects by itself after any loss.
import mqtt from 'mqtt';
import type { MqttClient } from 'mqtt';

export interface Login {
  username: string;
  password: string;
}

const LOGIN_KEY = 'sf-console-login';

export function loadLogin(): Login | null {
  try {
    const raw = sessionStorage.getItem(LOGIN_KEY);
    const v = raw ? (JSON.parse(raw) as Login) : null;
    return v && typeof v.username === 'string' && typeof v.password === 'string' ? v : null;
  } catch {
    return null;
  }
}

export function saveLogin(login: Login | null): void {
  if (login && login.username !== '') sessionStorage.setItem(LOGIN_KEY, JSON.stringify(login));
  else sessionStorage.removeItem(LOGIN_KEY);
}

/** ws(s)://<this host>/mqtt, or the ?broker= of the page's address when it is a ws: or wss: URL. */
export function brokerUrl(location: { href: string; protocol: string; host: string }): string {
  const given = new URL(location.href).searchParams.get('broker');
  if (given && /^wss?:\/\//.test(given)) return given;
  return `${location.protocol === 'https:' ? 'wss' : 'ws'}://${location.host}/mqtt`;
}

export type LinkState = 'connecting' | 'connected' | 'reconnecting' | 'offline';

export interface LinkHandlers {
  /** retained: the broker kept it from earlier (status and health), so it says nothing of now. */
  onMessage(topic: string, payload: string, retained: boolean): void;
  onState(state: LinkState, detail: string): void;
  onSubscribed(): void;
}

export function openLink(url: string, root: string, login: Login | null, h: LinkHandlers): MqttClient {
  const client = mqtt.connect(url, {
    clientId: `sfweb-${Math.random().toString(16).slice(2, 10)}`,
    clean: true,
    keepalive: 30,
    reconnectPeriod: 1000,
    connectTimeout: 5000,
    protocolVersion: 4,
    username: login?.username || undefined,
    password: login?.password || undefined,
  });
  h.onState('connecting', url);
  client.on('connect', () => {
    h.onState('connected', url);
    const topics = ['status', 'metrics', 'up', 'sim/event'].map((leaf) => `${root}/+/${leaf}`);
    client.subscribe(topics, { qos: 1 }, (err) => {
      if (!err) h.onSubscribed();
      else h.onState('connected', `subscription refused: ${err.message}`);
    });
  });
  client.on('reconnect', () => h.onState('reconnecting', url));
  client.on('offline', () => h.onState('offline', url));
  client.on('error', (err) => h.onState('offline', err.message));
  const decoder = new TextDecoder();
  client.on('message', (topic, payload, packet) => h.onMessage(topic, decoder.decode(payload), packet.retain));
  return client;
}
