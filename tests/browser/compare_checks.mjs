// What a comparison report must show, held against `kltce fleet --compare --format json`: every
// campaign and no other, each marked with its status (added, removed, ...); every number of every
// table equal to the JSON's, old, new and change; every why-not kind, rejection step and outcome
// change shown, the changes most first and named in the section's gist; and every chart drawn
// with a size and one bar per number, in proportion.
import { checkBars } from './fleet_checks.mjs';

const sum = (counts) => Object.values(counts).reduce((a, n) => a + n, 0);

// The JSON's value at a cell's key ("reached.old", "why_not.count_short.difference",
// "outcome_changes.count_short -> fired"), as a number or null; undefined when there is none.
// "not_reached.<side>" and "changed" are sums the page adds.
function valueAt(c, key) {
  if (key === 'changed') return sum(c.outcome_changes);
  if (key.startsWith('outcome_changes.')) return c.outcome_changes[key.slice('outcome_changes.'.length)];
  const side = /^not_reached\.(old|new|difference)$/.exec(key);
  if (side) {
    const before = c.devices.old - c.reached.old, after = c.devices.new - c.reached.new;
    return { old: before, new: after, difference: after - before }[side[1]];
  }
  let v = c;
  for (const part of key.split('.')) {
    if (v === null || typeof v !== 'object' || !(part in v)) return undefined;
    v = v[part];
  }
  return v;
}

// How the page writes the value: "-" for none, a change with its sign ("+3", "-3", "0").
function shown(key, v) {
  if (v === null) return '-';
  if (typeof v === 'number' && key.endsWith('.difference') && v > 0) return `+${v}`;
  return String(v);
}

function checkCells(where, c, rows, failures) {
  for (const row of rows) {
    for (const cell of row.cells) {
      if (!cell.k) continue;
      const v = valueAt(c, cell.k);
      if (v === undefined) failures.push(`${where} ${cell.k}: no such figure in the JSON`);
      else if (cell.text !== shown(cell.k, v)) failures.push(`${where} ${cell.k}: the page says ${cell.text}, the JSON ${shown(cell.k, v)}`);
    }
  }
}

export function checkComparison(view, comparison) {
  const failures = [];
  const ids = Object.keys(comparison.campaigns);
  const shownIds = view.sections.map((s) => s.campaign);
  for (const id of ids) if (!shownIds.includes(id)) failures.push(`campaign ${id} is missing`);
  for (const id of shownIds) if (!ids.includes(id)) failures.push(`campaign ${id} is not in the comparison`);
  if (shownIds.length !== new Set(shownIds).size) failures.push('a campaign is shown twice');
  for (const key of ['devices', 'events']) {
    if (view.header[key] !== String(comparison[key])) failures.push(`header ${key} ${view.header[key]} != ${comparison[key]}`);
  }
  const overview = view.tables.overview ?? [];
  if (overview.length !== ids.length) failures.push(`overview has ${overview.length} rows for ${ids.length} campaigns`);
  for (const row of overview) {
    const c = comparison.campaigns[row.campaign];
    if (c) checkCells(`overview ${row.campaign}`, c, [row], failures);
  }
  for (const s of view.sections) {
    const c = comparison.campaigns[s.campaign];
    if (!c) continue;
    const where = (what) => `${s.campaign} ${what}`;
    if (s.status !== c.status || s.badge !== c.status) failures.push(where(`is marked ${s.status} (badge ${s.badge}), the JSON says ${c.status}`));
    for (const [name, rows] of Object.entries(s.tables)) checkCells(where(name), c, rows, failures);
    // Every figure, side and reason of the JSON has its cell.
    const keys = new Set(Object.values(s.tables).flatMap((rows) => rows.flatMap((r) => r.cells.map((x) => x.k))));
    const wanted = ['devices', 'admitted', 'reached', 'displays', 'first_display_seconds.median', 'first_display_seconds.p90',
      ...Object.keys(c.rejected).map((k) => `rejected.${k}`), ...Object.keys(c.why_not).map((k) => `why_not.${k}`)];
    for (const figure of wanted) {
      for (const side of ['old', 'new', 'difference']) if (!keys.has(`${figure}.${side}`)) failures.push(where(`${figure}.${side} is not shown`));
    }
    // The outcome changes: each pair, most devices first, and named in the gist as "pair count".
    const changes = (s.tables['outcome-changes'] ?? []).filter((r) => r.cells[0]?.k.startsWith('outcome_changes.'));
    for (const [pair, n] of Object.entries(c.outcome_changes)) {
      if (!keys.has(`outcome_changes.${pair}`)) failures.push(where(`outcome change ${pair} is not shown`));
      if (!s.gist.includes(`${pair} ${n}`)) failures.push(where(`the gist does not say "${pair} ${n}"`));
    }
    for (let i = 1; i < changes.length; ++i) {
      if (Number(changes[i].cells[0].text) > Number(changes[i - 1].cells[0].text)) failures.push(where('outcome changes are not most first'));
    }
    // Charts: each drawn; a bar per side of the funnel, per side of each reason, per change.
    const charts = Object.fromEntries(s.charts.map((x) => [x.name, x]));
    for (const name of ['funnel', 'why-not', 'outcome-changes']) {
      if (!charts[name]) failures.push(where(`chart ${name} is missing`));
      else if (!(charts[name].size.w > 0 && charts[name].size.h > 0)) failures.push(where(`chart ${name} has no size`));
    }
    const sides = (figure) => [valueAt(c, `${figure}.old`), valueAt(c, `${figure}.new`)];
    if (charts.funnel) checkBars(where('funnel'), charts.funnel.bars, ['devices', 'admitted', 'reached'].flatMap(sides), 'w', failures);
    const reasons = (s.tables['why-not'] ?? []).map((r) => r.cells[0]?.k.replace(/\.old$/, '') ?? '')
      .filter((k) => /^(rejected|why_not)\./.test(k) && k !== 'why_not.rejected');
    if (charts['why-not']) checkBars(where('why not'), charts['why-not'].bars, reasons.flatMap(sides), 'w', failures);
    if (charts['outcome-changes']) {
      checkBars(where('outcome changes'), charts['outcome-changes'].bars, changes.map((r) => Number(r.cells[0].text)), 'w', failures);
    }
  }
  return failures;
}
