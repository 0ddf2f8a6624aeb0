// Time from a message's arrival to the paint of the frame that drew it, for
// the benchmark (web/bench). Bounded: the latest 20000 samples.
const KEEP = 20000;

export class Meter {
  private waiting: number[] = []; // arrival times not yet drawn
  samples: number[] = []; // ms
  messages = 0;

  arrived(t: number): void {
    this.messages++;
    if (this.waiting.length < KEEP) this.waiting.push(t);
  }

  drawn(t: number): void {
    for (const a of this.waiting) this.samples.push(t - a);
    this.waiting = [];
    if (this.samples.length > KEEP) this.samples.splice(0, this.samples.length - KEEP);
  }

  reset(): void {
    this.samples = [];
    this.messages = 0;
  }
}
