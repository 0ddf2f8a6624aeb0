// A small uplink simulator for the benchmark: publishes as GATEWAYS gateways
// of DEVICES devices each (retained status and health document, then DP
// reports at RATE messages per second over all of them), straight to the
// broker over TCP with MQTT.js, as the gateways would.
import mqtt from 'mqtt';

export async function simulate({ port, root = 'sf', gateways = 100, devices = 10, rate = 200 }) {
  const client = mqtt.connect(`mqtt://127.0.0.1:${port}`, { clientId: `bench-sim-${process.pid}` });
  await new Promise((resolve, reject) => { client.once('connect', resolve); client.once('error', reject); });
  const gw = (i) => `gwb${String(i).padStart(3, '0')}`;
  const serno = new Array(gateways).fill(0);
  for (let g = 0; g < gateways; g++) {
    client.publish(`${root}/${gw(g)}/status`, '{"online":true}', { qos: 1, retain: true });
    const health = { gateway: gw(g), time: Math.floor(Date.now() / 1000), mqtt: { connected: true, connects: 1 }, registry: { devices, online: devices, offline: 0, pending: 0 } };
    client.publish(`${root}/${gw(g)}/metrics`, JSON.stringify(health), { qos: 0, retain: true });
  }
  let sent = 0;
  let n = 0;
  const tickMs = 20;
  const perTick = Math.max(1, Math.round((rate * tickMs) / 1000));
  const timer = setInterval(() => {
    for (let k = 0; k < perTick; k++, n++) {
      const g = n % gateways;
      const d = Math.floor(n / gateways) % devices;
      const data = { dps: { 1: n % 2 === 0, 2: 100 + (n % 900), 3: `v${n % 7}` }, cid: `dev${String(d).padStart(2, '0')}` };
      client.publish(`${root}/${gw(g)}/up`, JSON.stringify({ serno: serno[g]++, pro: 4, data }), { qos: 0 });
      sent++;
    }
  }, tickMs);
  return {
    sent: () => sent,
    async stop() {
      clearInterval(timer);
      for (let g = 0; g < gateways; g++) client.publish(`${root}/${gw(g)}/status`, '', { qos: 1, retain: true });
      await new Promise((r) => client.end(false, {}, r));
    },
  };
}
