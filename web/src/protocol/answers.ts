// Which uplink answers which command (docs/wire-protocol.md, "Matching answers
// to commands"): a refusal carries the command's sn; a report or an echo of the
// commanded device that names a commanded DP answers a DP command; a device's
// report answers a query to it; group and scene answers repeat action and ids.
// Answers of one channel come in command order, so the oldest waiting command
// that fits is the one answered.
import type { Uplink } from './uplink';
import { refusalWords } from './refusals';

export type Asked =
  | { kind: 'dp'; devId: string | null; dps: string[] }
  | { kind: 'query'; cids: (string | null)[] }
  | { kind: 'group'; action: number; gid: string; cids: string[] }
  | { kind: 'scene'; action: number; sid: string; gid: string; cids: string[] };

export interface Pending {
  gw: string;
  sn: string;
  asked: Asked;
  sentAt: number; // ms
  answered: (string | null)[]; // query: the devices that answered so far
}

export interface Answer {
  sn: string;
  state: 'report' | 'echo' | 'refused' | 'answered';
  text: string;
  done: boolean; // false: a query still waits for more devices
}

const names = (dps: Record<string, unknown>) => Object.keys(dps);

function retsText(cids: string[], rets: number[]): string {
  return cids.map((c, i) => `${c}: ${rets[i] === 0 ? 'done' : rets[i] === undefined ? 'no result' : `failed (${rets[i]})`}`).join(', ');
}

/** The answer an uplink gives to one of the waiting commands of gateway gw, or null. */
export function matchAnswer(gw: string, up: Uplink, waiting: Pending[]): { pending: Pending; answer: Answer } | null {
  for (const p of waiting) {
    if (p.gw !== gw) continue;
    const a = p.asked;
    if (up.kind === 'refusal') {
      if (up.sn !== p.sn) continue;
      const at = up.dp !== undefined ? ` (DP ${up.dp})` : '';
      return { pending: p, answer: { sn: p.sn, state: 'refused', text: `refused: ${refusalWords(up.code)}${at}: ${up.reason}`, done: true } };
    }
    if (a.kind === 'dp' && (up.kind === 'report' || up.kind === 'echo' || up.kind === 'multi') && up.cid === a.devId) {
      const hit = names(up.dps).filter((k) => a.dps.includes(k));
      if (hit.length === 0) continue;
      const values = hit.map((k) => `${k}=${JSON.stringify(up.dps[k])}`).join(' ');
      const state = up.kind === 'echo' ? 'echo' : 'report';
      const text = up.kind === 'echo' ? `unchanged, echoed: ${values}` : `reported: ${values}`;
      return { pending: p, answer: { sn: p.sn, state, text, done: true } };
    }
    if (a.kind === 'query' && up.kind === 'report' && a.cids.includes(up.cid) && !p.answered.includes(up.cid)) {
      p.answered.push(up.cid);
      const done = p.answered.length === a.cids.length;
      const who = p.answered.map((c) => c ?? 'gateway').join(', ');
      return { pending: p, answer: { sn: p.sn, state: 'answered', text: `answered by ${who}`, done } };
    }
    if (a.kind === 'group' && up.kind === 'group' && up.gid === a.gid && up.action === a.action) {
      return { pending: p, answer: { sn: p.sn, state: 'answered', text: `group ${a.gid}: ${retsText(a.cids, up.rets)}`, done: true } };
    }
    if (a.kind === 'scene' && up.kind === 'scene' && up.gid === a.gid && up.sid === a.sid && up.action === a.action) {
      return {
        pending: p,
        answer: { sn: p.sn, state: 'answered', text: `scene ${a.sid} of group ${a.gid}: ${retsText(a.cids, up.rets)}`, done: true },
      };
    }
  }
  return null;
}
