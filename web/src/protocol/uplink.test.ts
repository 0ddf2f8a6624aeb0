import { describe, expect, it } from 'vitest';
import { decodeHealth, decodeSimEvent, decodeStatus, decodeUplink, splitTopic } from './uplink';

describe('decodeUplink', () => {
  it('reads a sub-device report with its cid', () => {
    expect(decodeUplink('{"serno":31,"pro":4,"data":{"dps":{"1":true},"cid":"plug01"}}')).toEqual({
      kind: 'report', serno: 31, cid: 'plug01', dps: { '1': true },
    });
  });

  it('reads a report without cid as the gateway own DPs', () => {
    expect(decodeUplink('{"serno":52,"pro":4,"data":{"dps":{"2":30}}}')).toEqual({ kind: 'report', serno: 52, cid: null, dps: { '2': 30 } });
  });

  it('reads pro 16 as the echo of a command that changed nothing', () => {
    expect(decodeUplink('{"serno":32,"pro":16,"data":{"dps":{"1":true},"cid":"plug01"}}')).toEqual({
      kind: 'echo', serno: 32, cid: 'plug01', dps: { '1': true },
    });
  });

  it('reads a multi-DP answer by its devId, not as a report of the gateway', () => {
    expect(decodeUplink('{"serno":33,"pro":4,"data":{"devId":"bulb01","ctype":2,"mbid":"m-7","dps":{"22":500}}}')).toEqual({
      kind: 'multi', serno: 33, cid: 'bulb01', mbid: 'm-7', dps: { '22': 500 },
    });
  });

  it('reads a presence batch, a missing member as empty', () => {
    expect(decodeUplink('{"serno":5,"pro":25,"data":{"offline":["sensor01"]}}')).toEqual({
      kind: 'presence', serno: 5, online: [], offline: ['sensor01'],
    });
  });

  it('reads a refusal with its sn, device, DP, code and reason', () => {
    const r = decodeUplink('{"serno":60,"pro":64,"data":{"cmd":"dp","sn":3,"devId":"plug01","dp":"1","code":"bad_type","reason":"DP 1 of plug01: expected true or false, got a string"}}');
    expect(r).toEqual({
      kind: 'refusal', serno: 60, cmd: 'dp', sn: 3, devId: 'plug01', dp: '1', code: 'bad_type',
      reason: 'DP 1 of plug01: expected true or false, got a string',
    });
  });

  it('keeps a refused devId that is not a string as sent', () => {
    const r = decodeUplink('{"serno":61,"pro":64,"data":{"cmd":"dp","sn":"a-4","devId":123,"code":"bad_device_id","reason":"x"}}');
    expect(r).toMatchObject({ kind: 'refusal', sn: 'a-4', devId: 123, code: 'bad_device_id' });
    expect(r).not.toHaveProperty('dp');
  });

  it('reads group and scene answers', () => {
    expect(decodeUplink('{"serno":40,"pro":203,"data":{"action":0,"rets":[0,-901],"gid":"5"}}')).toEqual({
      kind: 'group', serno: 40, action: 0, rets: [0, -901], gid: '5',
    });
    expect(decodeUplink('{"serno":41,"pro":205,"data":{"action":0,"cids":["plug01"],"rets":[0,5],"sid":"01","gid":"5"}}')).toEqual({
      kind: 'scene', serno: 41, action: 0, cids: ['plug01'], rets: [0, 5], sid: '01', gid: '5',
    });
  });

  it('answers invalid, never throws, for what does not fit', () => {
    expect(decodeUplink('not json')).toEqual({ kind: 'invalid', why: 'not a JSON object' });
    expect(decodeUplink('[1]')).toEqual({ kind: 'invalid', why: 'not a JSON object' });
    expect(decodeUplink('{"pro":4,"data":{}}')).toEqual({ kind: 'invalid', why: 'no serno or pro' });
    expect(decodeUplink('{"serno":1,"pro":4,"data":"{}"}')).toEqual({ kind: 'invalid', why: 'data is not an object' });
    expect(decodeUplink('{"serno":1,"pro":4,"data":{"dps":[]}}')).toEqual({ kind: 'invalid', why: 'dps is not an object' });
    expect(decodeUplink('{"serno":1,"pro":99,"data":{}}')).toEqual({ kind: 'other', serno: 1, pro: 99 });
  });
});

describe('decodeStatus', () => {
  it('reads online, and the session only when the gateway gives one', () => {
    expect(decodeStatus('{"online":true}')).toEqual({ online: true });
    expect(decodeStatus('{"online":false,"session":7}')).toEqual({ online: false, session: 7 });
    expect(decodeStatus('{"online":"yes"}')).toBeNull();
    expect(decodeStatus('')).toBeNull();
  });
});

describe('decodeHealth', () => {
  it('reads the fleet summary of a health document', () => {
    const doc = '{"gateway":"gw0001","time":1795000000,"mqtt":{"connected":true,"connects":2},"registry":{"devices":4,"online":3,"offline":1,"pending":5}}';
    expect(decodeHealth(doc)).toEqual({ time: 1795000000, brokerConnected: true, connects: 2, pending: 5, devices: 4, online: 3 });
    expect(decodeHealth('{"gateway":"gw0001"}')).toBeNull();
  });
});

describe('decodeSimEvent and splitTopic', () => {
  it('reads probe events of the demo simulator', () => {
    expect(decodeSimEvent('{"event":"probe","cid":"sensor01","answered":false}')).toEqual({ kind: 'probe', cid: 'sensor01', answered: false });
    expect(decodeSimEvent('{"event":"other"}')).toBeNull();
  });

  it('splits <root>/<gw>/<leaf> and ignores other roots', () => {
    expect(splitTopic('sf', 'sf/gw0001/sim/event')).toEqual({ gw: 'gw0001', leaf: 'sim/event' });
    expect(splitTopic('sf', 'other/gw0001/up')).toBeNull();
    expect(splitTopic('sf', 'sf/gw0001')).toBeNull();
  });
});
