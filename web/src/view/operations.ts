// Group and scene operations on devices of the shown gateway; the answer
// (one result per device, in the order of the command) is shown beside them.
import type { Store } from '../store';
import { groupCommand, sceneCommand } from '../protocol/commands';
import { el, setText, setAttr } from './dom';
import type { Send } from './gateway';

export class OperationsView {
  readonly root: HTMLElement;
  private readonly devices = el('fieldset', { class: 'members' }, el('legend', {}, 'Devices'));
  private readonly answer = el('p', { class: 'answer', role: 'status', 'aria-live': 'polite', id: 'ops-answer' });
  private readonly action = el('select', { id: 'ops-action' }, el('option', { value: '0' }, 'add'), el('option', { value: '1' }, 'remove'));
  private readonly gid = el('input', { id: 'ops-gid', type: 'text', value: '5', maxlength: '5', size: '5' });
  private readonly sid = el('input', { id: 'ops-sid', type: 'text', value: '01', maxlength: '3', size: '3' });
  private known: string[] = [];
  private gw: string | null = null;
  private sn: string | null = null;

  constructor(private readonly send: Send, private readonly nextSn: () => string) {
    const group = el('button', { type: 'button', id: 'ops-group' }, 'Group');
    const scene = el('button', { type: 'button', id: 'ops-scene' }, 'Scene');
    group.addEventListener('click', () => this.go('group'));
    scene.addEventListener('click', () => this.go('scene'));
    this.root = el('section', { class: 'panel operations', 'aria-labelledby': 'ops-title' },
      el('h2', { id: 'ops-title' }, 'Groups and scenes'),
      el('div', { class: 'row' },
        el('label', {}, 'Action ', this.action), el('label', {}, 'Group id ', this.gid), el('label', {}, 'Scene id ', this.sid)),
      this.devices, el('div', { class: 'row' }, group, scene), this.answer);
  }

  private go(kind: 'group' | 'scene'): void {
    if (!this.gw) return;
    const cids = [...this.devices.querySelectorAll<HTMLInputElement>('input:checked')].map((b) => b.value);
    if (cids.length === 0) {
      setText(this.answer, 'choose at least one device');
      return;
    }
    const action = this.action.value === '1' ? 1 : 0;
    const sn = this.nextSn();
    this.sn = sn;
    const gid = this.gid.value.trim();
    const sid = this.sid.value.trim();
    if (kind === 'group') this.send(this.gw, groupCommand(action, cids, gid, sn), { kind: 'group', action, gid, cids }, sn);
    else this.send(this.gw, sceneCommand(action, cids, sid, gid, sn), { kind: 'scene', action, sid, gid, cids }, sn);
  }

  render(store: Store, gw: string | null): void {
    this.gw = gw;
    const ids = gw ? [...store.gateway(gw).devices.keys()].filter((id) => id !== gw).sort() : [];
    if (ids.join() !== this.known.join()) {
      this.known = ids;
      this.devices.replaceChildren(el('legend', {}, 'Devices'),
        ...ids.map((id) => el('label', {}, el('input', { type: 'checkbox', value: id }), ` ${id}`)));
    }
    const a = this.sn ? store.answers.get(this.sn) : undefined;
    if (a) {
      setText(this.answer, a.text);
      setAttr(this.answer, 'data-state', a.state);
    }
  }
}
