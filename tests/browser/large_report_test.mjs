// A fleet report of a large document opens fast and stays small: 1,000 campaigns over 10,000
// devices, under 5 MB, drawn in Chromium in under 2 s, and every campaign checked as in the
// shipped fleet's test. Replaying 10,000 devices against 1,000 campaigns would take long, so the
// summary is synthesized in its JSON form (seeded, shaped like a real fleet's: every device meets
// every campaign, some reject it by an admission step, the rest are reached or not for the
// outcome kinds, first displays spread over an hour) and turned into a report by
// `kltce fleet merge --html`, which reads that form.
//   node large_report_test.mjs --kltce TOOL --out DIR [--campaigns N --devices N]
import fs from 'node:fs';
import path from 'node:path';
import { argsOf, openBrowser, openReport, readPage, report, screenshot } from './browser.mjs';
import { checkFleet } from './fleet_checks.mjs';
import { kltce } from './run_tool.mjs';

const args = argsOf(process.argv.slice(2));
const campaigns = Number(args.campaigns ?? 1000), devices = Number(args.devices ?? 10000);
const maxBytes = 5_000_000, maxMillis = 2000;
fs.mkdirSync(args.out, { recursive: true });

// A small seeded generator (mulberry32): the same summary at every run.
let seed = 20261125;
const random = () => {
  seed = (seed + 0x6d2b79f5) | 0;
  let t = Math.imul(seed ^ (seed >>> 15), 1 | seed);
  t = (t + Math.imul(t ^ (t >>> 7), 61 | t)) ^ t;
  return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
};
const pick = (n) => Math.floor(random() * n);
// Splits total into parts of random sizes.
const split = (total, names) => {
  const weights = names.map(() => random() ** 2);
  const sum = weights.reduce((a, b) => a + b, 0) || 1;
  const out = {};
  let left = total;
  names.forEach((name, i) => {
    const n = i === names.length - 1 ? left : Math.min(left, Math.round((total * weights[i]) / sum));
    left -= n;
    if (n > 0) out[name] = n;
  });
  return out;
};

const steps = ['version', 'user_attributes', 'session_attributes', 'hardware', 'first_session', 'validity_dates'];
const kinds = ['count_short', 'never_armed', 'out_of_bounds', 'fold_false', 'outside_window', 'cap_blocked'];
const summary = { devices, lines: devices * 15, events: devices * 14, bad_lines: 0, campaigns: {} };
for (let i = 0; i < campaigns; ++i) {
  const rejectedTotal = pick(3) === 0 ? 0 : Math.round(devices * random() * 0.6);
  const rejected = split(rejectedTotal, steps.slice(0, 1 + pick(3)));
  const admitted = devices - rejectedTotal;
  const reached = Math.round(admitted * random() * 0.7);
  const counts = {};
  const typical = 60 + random() * 900;  // a campaign's usual delay, in seconds
  for (let d = 0; d < reached; ++d) {
    const s = Math.min(3599, Math.floor(typical * Math.exp((random() + random() + random() - 1.5) * 1.2)));
    counts[s] = (counts[s] ?? 0) + 1;
  }
  const whyNot = split(admitted - reached, kinds.slice(0, 2 + pick(kinds.length - 1)));
  if (rejectedTotal > 0) whyNot.rejected = rejectedTotal;
  summary.campaigns[`campaign_${String(i).padStart(4, '0')}`] = {
    devices, admitted, rejected, reached, displays: reached + pick(reached + 1),
    first_display_seconds: { counts }, why_not: whyNot,
  };
}
// The run it stands for, as every summary names it (merge refuses a part that does not).
summary.part = { document: '0123456789abcdef', fleet: { size: devices * 1500, ends: '0123456789abcdef' }, state: null,
                 auto_shown: false, split: 1, shards: [0] };
const input = path.join(args.out, 'large_summary.json');
fs.writeFileSync(input, JSON.stringify(summary));
const html = path.join(args.out, 'large_report.html');
const json = JSON.parse(kltce(args.kltce, ['fleet', 'merge', '--format', 'json', '--html', html, input]).stdout);

const failures = [];
const bytes = fs.statSync(html).size;
if (bytes >= maxBytes) failures.push(`the report is ${bytes} bytes (${maxBytes} at most)`);
const browser = await openBrowser();
try {
  // The first opening warms the browser's caches; the second is the one measured.
  await (await openReport(browser.context, html)).page.close();
  const { page, problems, loadMillis } = await openReport(browser.context, html);
  if (loadMillis >= maxMillis) failures.push(`it took ${loadMillis} ms to open (${maxMillis} at most)`);
  failures.push(...problems);
  await screenshot(page, path.join(args.out, 'large_report_top.png'), false);
  const started = Date.now();
  const view = await readPage(page);
  failures.push(...checkFleet(view, json));
  console.log(`${campaigns} campaigns over ${devices} devices: ${(bytes / 1048576).toFixed(2)} MiB, opened in ${loadMillis} ms; ` +
    `${view.sections.length} sections checked in ${Date.now() - started} ms`);
} finally {
  await browser.close();
}
process.exit(report('large fleet report', failures).length ? 1 : 0);
