import { describe, expect, it } from 'vitest';
import { isNumeric, readDescription, scaled } from './schema';

describe('readDescription', () => {
  it('puts the gateway first and fills the defaults of every DP', () => {
    const d = readDescription({
      topic_root: 'sf',
      gateway: { id: 'gw0001', dps: [{ id: 1, name: 'alarm_sound', prop: 'bool' }] },
      devices: [{ id: 'thermo01', dps: [{ id: 2, name: 'temp_set', prop: 'value', min: 50, max: 350, scale: 1, step: 5 }, { id: 3, mode: 'ro', prop: 'bitmap' }, { id: 6, type: 'raw' }] }],
    });
    expect(d?.gatewayId).toBe('gw0001');
    expect(d?.devices.map((x) => x.id)).toEqual(['gw0001', 'thermo01']);
    expect(d?.devices[1].dps[0]).toEqual({ id: 2, name: 'temp_set', type: 'obj', prop: 'value', mode: 'rw', min: 50, max: 350, step: 5, scale: 1, range: [], maxLen: 0 });
    expect(d?.devices[1].dps[1]).toMatchObject({ mode: 'ro', prop: 'bitmap', maxLen: 32, step: 1 });
    expect(d?.devices[1].dps[2]).toMatchObject({ type: 'raw', prop: undefined });
    expect(readDescription({ devices: [] })).toBeNull();
  });

  it('shows a value DP with its decimal places and plots only integers of the wire', () => {
    const d = readDescription({ gateway: { id: 'g', dps: [{ id: 1, prop: 'value', scale: 1 }, { id: 2, prop: 'str' }] } });
    expect(d?.root).toBe('sf');
    expect(scaled(d?.devices[0].dps[0], 215)).toBe('21.5');
    expect(scaled(d?.devices[0].dps[0], -5)).toBe('-0.5');
    expect(scaled(undefined, 215)).toBe('215');
    expect(isNumeric(d?.devices[0].dps[0])).toBe(true);
    expect(isNumeric(d?.devices[0].dps[1])).toBe(false);
  });
});
