// Building the commands of docs/wire-protocol.md section 5, and reading a
// control's input into the JSON value its DP takes (section 1). The page does
// NOT refuse what the gateway would refuse (out of range, off step): the
// gateway is the judge, and its refusal is shown where the command was asked.
import type { DpSchema } from './schema';

export interface Command {
  leaf: 'cmd/dp' | 'cmd/query' | 'cmd/group' | 'cmd/scene';
  payload: string;
}

/** devId null: the gateway's own DPs. */
export function dpCommand(devId: string | null, dps: Record<number, unknown>, sn: string): Command {
  const doc: Record<string, unknown> = {};
  if (devId !== null) doc.devId = devId;
  doc.dps = Object.fromEntries(Object.entries(dps).map(([k, v]) => [String(Number(k)), v]));
  doc.sn = sn;
  return { leaf: 'cmd/dp', payload: JSON.stringify(doc) };
}

/** cids null: the gateway's own DPs; dpids [] every DP. */
export function queryCommand(cids: string[] | null, dpids: number[], sn: string): Command {
  const doc: Record<string, unknown> = {};
  if (cids !== null) doc.cids = cids;
  doc.dpids = dpids;
  doc.sn = sn;
  return { leaf: 'cmd/query', payload: JSON.stringify(doc) };
}

/** action 0 add, 1 remove. */
export function groupCommand(action: 0 | 1, cids: string[], gid: string, sn: string): Command {
  return { leaf: 'cmd/group', payload: JSON.stringify({ action, cids, gid, sn }) };
}

export function sceneCommand(action: 0 | 1, cids: string[], sid: string, gid: string, sn: string): Command {
  return { leaf: 'cmd/scene', payload: JSON.stringify({ action, cids, sid, gid, sn }) };
}

/** Which control fits a DP; null for DPs that cannot be commanded. */
export type ControlKind = 'switch' | 'number' | 'enum' | 'text';

export function controlKind(dp: DpSchema): ControlKind | null {
  if (dp.mode === 'ro' || dp.type === 'file') return null;
  if (dp.type === 'raw') return 'text'; // base64, as typed
  switch (dp.prop) {
    case 'bool':
      return 'switch';
    case 'value':
    case 'bitmap':
      return 'number';
    case 'enum':
      return 'enum';
    default:
      return 'text';
  }
}

export type Parsed = { ok: true; value: unknown } | { ok: false; why: string };

/**
 * The JSON value for what a person entered. A value DP is entered as people
 * read it (21.5 for 215 with scale 1) and sent as the integer of the wire;
 * an entry that is not a number at all is not sent (there is nothing to ask).
 */
export function parseInput(dp: DpSchema, input: string | boolean): Parsed {
  const kind = controlKind(dp);
  if (kind === null) return { ok: false, why: 'read-only' };
  if (kind === 'switch') return { ok: true, value: input === true || input === 'true' };
  const s = String(input).trim();
  if (kind === 'number') {
    if (s === '' || !Number.isFinite(Number(s))) return { ok: false, why: 'not a number' };
    const factor = dp.prop === 'value' ? 10 ** dp.scale : 1;
    return { ok: true, value: Math.round(Number(s) * factor) };
  }
  return { ok: true, value: String(input) };
}

/** A command's own serial number: unique per page, so a refusal finds its control. */
export function makeSnSource(prefix: string): () => string {
  let n = 0;
  return () => `${prefix}-${++n}`;
}
