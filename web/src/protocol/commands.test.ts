import { describe, expect, it } from 'vitest';
import { controlKind, dpCommand, groupCommand, makeSnSource, parseInput, queryCommand, sceneCommand } from './commands';
import type { DpSchema } from './schema';

const dp = (over: Partial<DpSchema>): DpSchema => ({
  id: 1, name: '', type: 'obj', prop: 'bool', mode: 'rw', min: 0, max: 0, step: 1, scale: 0, range: [], maxLen: 0, ...over,
});

describe('commands', () => {
  it('builds a DP command with devId, canonical DP keys and the sn', () => {
    expect(dpCommand('plug01', { 1: true }, 'w-1')).toEqual({ leaf: 'cmd/dp', payload: '{"devId":"plug01","dps":{"1":true},"sn":"w-1"}' });
  });

  it('leaves devId out for the gateway own DPs', () => {
    expect(dpCommand(null, { 2: 30 }, 'w-2').payload).toBe('{"dps":{"2":30},"sn":"w-2"}');
  });

  it('builds queries, group and scene commands as the protocol writes them', () => {
    expect(queryCommand(['thermo01', 'bulb01'], [], 's').payload).toBe('{"cids":["thermo01","bulb01"],"dpids":[],"sn":"s"}');
    expect(queryCommand(null, [2], 's').payload).toBe('{"dpids":[2],"sn":"s"}');
    expect(groupCommand(0, ['plug01'], '5', 's')).toEqual({ leaf: 'cmd/group', payload: '{"action":0,"cids":["plug01"],"gid":"5","sn":"s"}' });
    expect(sceneCommand(1, ['plug01'], '01', '5', 's')).toEqual({
      leaf: 'cmd/scene', payload: '{"action":1,"cids":["plug01"],"sid":"01","gid":"5","sn":"s"}',
    });
  });

  it('numbers its commands one by one under a prefix', () => {
    const next = makeSnSource('web');
    expect([next(), next()]).toEqual(['web-1', 'web-2']);
  });
});

describe('controls', () => {
  it('fits a control to each DP type; none for read-only and file DPs', () => {
    expect(controlKind(dp({ prop: 'bool' }))).toBe('switch');
    expect(controlKind(dp({ prop: 'value' }))).toBe('number');
    expect(controlKind(dp({ prop: 'bitmap' }))).toBe('number');
    expect(controlKind(dp({ prop: 'enum' }))).toBe('enum');
    expect(controlKind(dp({ prop: 'str' }))).toBe('text');
    expect(controlKind(dp({ type: 'raw', prop: undefined }))).toBe('text');
    expect(controlKind(dp({ mode: 'ro' }))).toBeNull();
    expect(controlKind(dp({ type: 'file', prop: undefined }))).toBeNull();
  });

  it('sends a scaled value as the integer of the wire, and an out-of-range one unchanged for the gateway to judge', () => {
    const tempSet = dp({ prop: 'value', min: 50, max: 350, step: 5, scale: 1 });
    expect(parseInput(tempSet, '19.5')).toEqual({ ok: true, value: 195 });
    expect(parseInput(tempSet, '99')).toEqual({ ok: true, value: 990 });
    expect(parseInput(tempSet, 'abc')).toEqual({ ok: false, why: 'not a number' });
    expect(parseInput(dp({ prop: 'bool' }), true)).toEqual({ ok: true, value: true });
    expect(parseInput(dp({ prop: 'enum', range: ['a'] }), 'b')).toEqual({ ok: true, value: 'b' });
    expect(parseInput(dp({ mode: 'ro' }), 'x')).toEqual({ ok: false, why: 'read-only' });
  });
});
