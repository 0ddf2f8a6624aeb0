// One control per writable DP, of the kind its type calls for: a switch for a
// bool, a number field with the DP's range and step for a value or bitmap, a
// list of names for an enum, a text field for a string or raw DP.
import type { DpSchema } from '../protocol/schema';
import { controlKind, parseInput } from '../protocol/commands';
import { el } from './dom';

export interface Control {
  root: HTMLElement;
  /** Show the held value, unless the person is editing this control or its command still waits. */
  show(value: unknown, waiting: boolean): void;
}

export function makeControl(dp: DpSchema, label: string, submit: (value: unknown) => void, invalid: (why: string) => void): Control | null {
  const kind = controlKind(dp);
  if (kind === null) return null;
  const form = el('form', { class: `control ${kind}` });
  const send = (raw: string | boolean) => {
    const parsed = parseInput(dp, raw);
    if (parsed.ok) submit(parsed.value);
    else invalid(parsed.why);
  };
  if (kind === 'switch') {
    const box = el('input', { type: 'checkbox', role: 'switch', 'aria-label': label });
    form.append(el('label', { class: 'switch' }, box, el('span', { 'aria-hidden': 'true' })));
    box.addEventListener('change', () => send(box.checked));
    form.addEventListener('submit', (e) => e.preventDefault());
    return { root: form, show: (v, waiting) => { if (!waiting) box.checked = v === true; } };
  }
  let field: HTMLInputElement | HTMLSelectElement;
  if (kind === 'enum') {
    field = el('select', { 'aria-label': label }, ...dp.range.map((name) => el('option', { value: name }, name)));
  } else if (kind === 'number') {
    const factor = dp.prop === 'value' ? 10 ** dp.scale : 1;
    const attrs: Record<string, string> = { type: 'number', inputmode: 'decimal', 'aria-label': label };
    if (dp.prop === 'value') Object.assign(attrs, { min: String(dp.min / factor), max: String(dp.max / factor), step: String(dp.step / factor) });
    else Object.assign(attrs, { min: '0', max: String(2 ** dp.maxLen - 1), step: '1' });
    // no browser-side range check on submit: the gateway judges, and its refusal is the answer shown
    form.noValidate = true;
    field = el('input', attrs);
  } else {
    field = el('input', { type: 'text', 'aria-label': label, ...(dp.prop === 'str' ? { maxlength: String(dp.maxLen) } : {}) });
  }
  form.append(field, el('button', { type: 'submit' }, 'Set'));
  form.addEventListener('submit', (e) => {
    e.preventDefault();
    send(field.value);
  });
  const show = (v: unknown, waiting: boolean) => {
    if (waiting || document.activeElement === field || v === undefined) return;
    if (kind === 'number' && typeof v === 'number') field.value = String(dp.prop === 'value' ? v / 10 ** dp.scale : v);
    else if (typeof v === 'string') field.value = v;
  };
  return { root: form, show };
}
