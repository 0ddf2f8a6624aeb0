import { describe, expect, it } from 'vitest';
import { matchAnswer, type Pending } from './answers';
import { decodeUplink } from './uplink';
import { refusalWords } from './refusals';

const pending = (sn: string, asked: Pending['asked']): Pending => ({ gw: 'gw0001', sn, asked, sentAt: 0, answered: [] });

describe('matchAnswer', () => {
  it('pairs a refusal with the command of its sn and says its code in words', () => {
    const p = [pending('w-1', { kind: 'dp', devId: 'plug01', dps: ['9'] }), pending('w-2', { kind: 'dp', devId: 'plug01', dps: ['9'] })];
    const up = decodeUplink('{"serno":9,"pro":64,"data":{"cmd":"dp","sn":"w-2","devId":"plug01","dp":"9","code":"out_of_range","reason":"DP 9 of plug01: 100000 outside 0..86400"}}');
    expect(matchAnswer('gw0001', up, p)).toEqual({
      pending: p[1],
      answer: { sn: 'w-2', state: 'refused', text: 'refused: value out of range (DP 9): DP 9 of plug01: 100000 outside 0..86400', done: true },
    });
  });

  it('takes the device report naming the commanded DP as the answer, and the echo as an echo', () => {
    const p = [pending('w-1', { kind: 'dp', devId: 'plug01', dps: ['1'] })];
    expect(matchAnswer('gw0001', decodeUplink('{"serno":1,"pro":4,"data":{"dps":{"4":150},"cid":"plug01"}}'), p)).toBeNull();
    expect(matchAnswer('gw0001', decodeUplink('{"serno":2,"pro":4,"data":{"dps":{"1":true},"cid":"bulb01"}}'), p)).toBeNull();
    expect(matchAnswer('gw0002', decodeUplink('{"serno":2,"pro":4,"data":{"dps":{"1":true},"cid":"plug01"}}'), p)).toBeNull();
    expect(matchAnswer('gw0001', decodeUplink('{"serno":3,"pro":4,"data":{"dps":{"1":true},"cid":"plug01"}}'), p)?.answer)
      .toEqual({ sn: 'w-1', state: 'report', text: 'reported: 1=true', done: true });
    expect(matchAnswer('gw0001', decodeUplink('{"serno":4,"pro":16,"data":{"dps":{"1":true},"cid":"plug01"}}'), p)?.answer)
      .toEqual({ sn: 'w-1', state: 'echo', text: 'unchanged, echoed: 1=true', done: true });
  });

  it('answers a query device by device until every one answered', () => {
    const p = [pending('q', { kind: 'query', cids: ['plug01', 'bulb01'] })];
    const first = matchAnswer('gw0001', decodeUplink('{"serno":1,"pro":4,"data":{"dps":{"1":true},"cid":"plug01"}}'), p);
    expect(first?.answer).toEqual({ sn: 'q', state: 'answered', text: 'answered by plug01', done: false });
    const second = matchAnswer('gw0001', decodeUplink('{"serno":2,"pro":4,"data":{"dps":{"21":"white"},"cid":"bulb01"}}'), p);
    expect(second?.answer).toEqual({ sn: 'q', state: 'answered', text: 'answered by plug01, bulb01', done: true });
  });

  it('pairs group and scene results with the ids of the command', () => {
    const g = [pending('g', { kind: 'group', action: 0, gid: '5', cids: ['plug01', 'lamp99'] })];
    expect(matchAnswer('gw0001', decodeUplink('{"serno":40,"pro":203,"data":{"action":0,"rets":[0,-901],"gid":"5"}}'), g)?.answer.text)
      .toBe('group 5: plug01: done, lamp99: failed (-901)');
    const s = [pending('s', { kind: 'scene', action: 0, sid: '01', gid: '5', cids: ['plug01', 'lamp99'] })];
    expect(matchAnswer('gw0001', decodeUplink('{"serno":41,"pro":205,"data":{"action":0,"cids":["plug01"],"rets":[0,5],"sid":"01","gid":"5"}}'), s)?.answer.text)
      .toBe('scene 01 of group 5: plug01: done, lamp99: failed (5)');
    expect(matchAnswer('gw0001', decodeUplink('{"serno":42,"pro":205,"data":{"action":1,"cids":[],"rets":[0],"sid":"01","gid":"5"}}'), s)).toBeNull();
  });
});

describe('refusalWords', () => {
  it('words every code of the protocol, and shows an unknown one readable', () => {
    expect(refusalWords('off_step')).toBe('value not on the step');
    expect(refusalWords('not_writable')).toBe('DP is not writable');
    expect(refusalWords('some_new_code')).toBe('some new code');
  });
});
