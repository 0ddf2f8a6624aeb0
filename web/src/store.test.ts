import { describe, expect, it } from 'vitest';
import { Store, ANSWER_TIMEOUT_MS, PLOT_WINDOW_MS } from './store';
import { decodeUplink, decodeSimEvent } from './protocol/uplink';

const up = (s: Store, text: string, now = 1000) => s.onUplink('gw1', decodeUplink(text), now);

describe('Store', () => {
  it('follows presence: online and offline from batches, silent from an unanswered probe', () => {
    const s = new Store();
    up(s, '{"serno":1,"pro":25,"data":{"online":["a","b"]}}');
    expect(s.gateway('gw1').devices.get('b')?.presence).toBe('online');
    s.onSimEvent('gw1', decodeSimEvent('{"event":"probe","cid":"b","answered":false}')!, 2000);
    expect(s.gateway('gw1').devices.get('b')?.presence).toBe('silent');
    up(s, '{"serno":2,"pro":25,"data":{"offline":["b"]}}', 3000);
    expect(s.gateway('gw1').devices.get('b')?.presence).toBe('offline');
    expect(s.events.map((e) => `${e.kind} ${e.text}`)).toEqual([
      'presence offline: b', 'probe b did not answer the heartbeat probe (silent)', 'presence online: a, b',
    ]);
  });

  it('keeps the time of a value change, not of a report that repeats it', () => {
    const s = new Store();
    up(s, '{"serno":1,"pro":4,"data":{"dps":{"1":true},"cid":"a"}}', 1000);
    up(s, '{"serno":2,"pro":4,"data":{"dps":{"1":true},"cid":"a"}}', 5000);
    expect(s.gateway('gw1').devices.get('a')?.dps.get('1')).toEqual({ value: true, changedAt: 1000 });
    up(s, '{"serno":3,"pro":4,"data":{"dps":{"2":7}}}', 6000);
    expect(s.gateway('gw1').devices.get('gw1')?.dps.get('2')).toEqual({ value: 7, changedAt: 6000 });
  });

  it('drops a message delivered twice (same serno) and numbers again after the gateway restarts', () => {
    const s = new Store();
    expect(up(s, '{"serno":1,"pro":25,"data":{"online":["a"]}}')).toBe(true);
    expect(up(s, '{"serno":1,"pro":25,"data":{"online":["a"]}}')).toBe(false);
    expect(s.events).toHaveLength(1);
    s.onStatus('gw1', { online: false }, 2000);
    s.onStatus('gw1', { online: true }, 3000);
    expect(up(s, '{"serno":1,"pro":25,"data":{"online":["a"]}}', 4000)).toBe(true);
    s.onStatus('gw1', { online: true, session: 3 }, 5000);
    expect(up(s, '{"serno":1,"pro":25,"data":{"online":["a"]}}', 6000)).toBe(false);
    s.onStatus('gw1', { online: true, session: 4 }, 7000);
    expect(up(s, '{"serno":1,"pro":25,"data":{"online":["a"]}}', 8000)).toBe(true);
  });

  it('bounds the events at 500, newest first, and plots only the last 15 minutes', () => {
    const s = new Store();
    for (let i = 0; i < 600; i++) up(s, `{"serno":${i},"pro":25,"data":{"online":["d${i}"]}}`);
    expect(s.events).toHaveLength(500);
    expect(s.events[0].text).toBe('online: d599');
    const t0 = 1_000_000;
    up(s, '{"serno":1000,"pro":4,"data":{"dps":{"2":1},"cid":"a"}}', t0);
    up(s, '{"serno":1001,"pro":4,"data":{"dps":{"2":2},"cid":"a"}}', t0 + PLOT_WINDOW_MS + 1);
    expect(s.series.get('gw1/a/2')).toEqual({ t: [(t0 + PLOT_WINDOW_MS + 1) / 1000], v: [2] });
  });

  it('shows a command answered, and one without an answer as such after the time-out', () => {
    const s = new Store();
    s.asked({ gw: 'gw1', sn: 'w-1', asked: { kind: 'dp', devId: 'a', dps: ['1'] }, sentAt: 0, answered: [] });
    s.asked({ gw: 'gw1', sn: 'w-2', asked: { kind: 'dp', devId: 'b', dps: ['1'] }, sentAt: 0, answered: [] });
    expect(s.answers.get('w-1')).toMatchObject({ text: 'sent, waiting for the answer', done: false });
    up(s, '{"serno":1,"pro":4,"data":{"dps":{"1":true},"cid":"a"}}');
    expect(s.answers.get('w-1')).toEqual({ sn: 'w-1', state: 'report', text: 'reported: 1=true', done: true });
    s.expire(ANSWER_TIMEOUT_MS + 1);
    expect(s.answers.get('w-2')).toMatchObject({ text: 'no answer within 10 s', done: true });
    expect(s.pending).toEqual([]);
  });

  it('takes a retained status as no sign of life, and a health document at the time it was made', () => {
    const s = new Store();
    s.onStatus('gw1', { online: true }, 0);
    expect(s.gateway('gw1').lastSeen).toBe(0);
    s.onHealth('gw1', { time: 1700, brokerConnected: true, connects: 1, pending: 0, devices: 1, online: 1 }, 0);
    expect(s.gateway('gw1').lastSeen).toBe(1_700_000);
    up(s, '{"serno":1,"pro":25,"data":{"online":["a"]}}', 1_800_000);
    expect(s.gateway('gw1').lastSeen).toBe(1_800_000);
  });
});
