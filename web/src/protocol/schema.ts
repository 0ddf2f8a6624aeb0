// The gateway description as sfcloud serve hands it out at /description.json
// (docs/gateway-description.md, without "connection", "sim" and the LAN key).
// Only what the console needs is kept, with the description's defaults filled
// in, so the rest of the page never guesses a default twice.

export type Prop = 'bool' | 'value' | 'str' | 'enum' | 'bitmap';

export interface DpSchema {
  id: number;
  name: string;
  type: 'obj' | 'raw' | 'file';
  prop?: Prop; // obj DPs only
  mode: 'rw' | 'ro' | 'wr';
  min: number;
  max: number;
  step: number; // 1 when not given
  scale: number; // decimal places: 215 with scale 1 is 21.5
  range: string[]; // enum names
  maxLen: number; // str: bytes; bitmap: bits (32 when not given)
}

export interface DeviceSchema {
  id: string;
  dps: DpSchema[];
}

export interface Description {
  root: string;
  gatewayId: string;
  devices: DeviceSchema[]; // the gateway's own device first, under its own id
}

const num = (v: unknown, dflt: number): number => (typeof v === 'number' && Number.isFinite(v) ? v : dflt);

function readDp(raw: Record<string, unknown>): DpSchema | null {
  if (typeof raw.id !== 'number') return null;
  const type = raw.type === 'raw' || raw.type === 'file' ? raw.type : 'obj';
  const prop = type === 'obj' ? (raw.prop as Prop) : undefined;
  return {
    id: raw.id,
    name: typeof raw.name === 'string' ? raw.name : '',
    type,
    prop,
    mode: raw.mode === 'ro' || raw.mode === 'wr' ? raw.mode : 'rw',
    min: num(raw.min, 0),
    max: num(raw.max, 0),
    step: num(raw.step, 1),
    scale: num(raw.scale, 0),
    range: Array.isArray(raw.range) ? raw.range.filter((s): s is string => typeof s === 'string') : [],
    maxLen: num(raw.max_len, prop === 'bitmap' ? 32 : 0),
  };
}

function readDevice(raw: unknown): DeviceSchema | null {
  if (typeof raw !== 'object' || raw === null) return null;
  const r = raw as Record<string, unknown>;
  if (typeof r.id !== 'string') return null;
  const dps = Array.isArray(r.dps) ? r.dps.map((d) => readDp(d as Record<string, unknown>)) : [];
  return { id: r.id, dps: dps.filter((d): d is DpSchema => d !== null) };
}

/** null when the document is not a description. */
export function readDescription(doc: unknown): Description | null {
  if (typeof doc !== 'object' || doc === null) return null;
  const d = doc as Record<string, unknown>;
  const gateway = readDevice(d.gateway);
  if (!gateway) return null;
  const devices = Array.isArray(d.devices) ? d.devices.map(readDevice) : [];
  return {
    root: typeof d.topic_root === 'string' && d.topic_root !== '' ? d.topic_root : 'sf',
    gatewayId: gateway.id,
    devices: [gateway, ...devices.filter((x): x is DeviceSchema => x !== null)],
  };
}

/** A value DP's number as people read it: 215 with scale 1 is "21.5". */
export function scaled(dp: DpSchema | undefined, value: number): string {
  if (!dp || dp.prop !== 'value' || dp.scale === 0) return String(value);
  return (value / 10 ** dp.scale).toFixed(dp.scale);
}

/** True for DPs a plot can draw: integers on the wire. */
export function isNumeric(dp: DpSchema | undefined): boolean {
  return !!dp && dp.type === 'obj' && (dp.prop === 'value' || dp.prop === 'bitmap');
}
