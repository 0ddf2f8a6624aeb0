// Small DOM helpers. Views build their elements once and then only change
// text and attributes, so a control keeps its focus and typed text while
// values stream in, and a busy fleet costs few layout passes.

export function el<K extends keyof HTMLElementTagNameMap>(
  tag: K,
  attrs: Record<string, string> = {},
  ...children: (Node | string)[]
): HTMLElementTagNameMap[K] {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(attrs)) {
    if (k === 'class') e.className = v;
    else e.setAttribute(k, v);
  }
  e.append(...children);
  return e;
}

/** Set text only when it differs: writing the same text still costs a layout. */
export function setText(e: Element, text: string): void {
  if (e.textContent !== text) e.textContent = text;
}

export function setAttr(e: Element, name: string, value: string): void {
  if (e.getAttribute(name) !== value) e.setAttribute(name, value);
}

/** "14:03:27" in the browser's time zone; "-" for 0 (never). */
export function clock(ms: number): string {
  if (!ms) return '-';
  return new Date(ms).toLocaleTimeString([], { hour12: false });
}

/** "5 s ago", "3 min ago". */
export function ago(ms: number, now: number): string {
  if (!ms) return 'never';
  const s = Math.max(0, Math.round((now - ms) / 1000));
  return s < 120 ? `${s} s ago` : `${Math.round(s / 60)} min ago`;
}

/** A stable id fragment for a DOM id or a test selector. */
export function slug(s: string): string {
  return s.replace(/[^A-Za-z0-9_-]/g, '_');
}
