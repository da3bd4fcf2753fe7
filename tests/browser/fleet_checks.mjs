// What a fleet report must show, held against `kltce fleet --format json`: every campaign and no
// other, every chart drawn with a size and one bar per row of its table, bars in proportion to
// the numbers, and every number of every table equal to the summary's.

// Whether a cell shows the summary's value: displays per reached device to two decimals (either
// rounding of a half), the rest exactly.
function agrees(c, key, text) {
  if (key === 'displays_per_reached') return Math.abs(Number(text) - c.displays_per_reached) <= 0.005 + 1e-9 && /^\d+\.\d\d$/.test(text);
  return text === expected(c, key);
}

// The summary's value at a table cell's key ("admitted", "rejected.version", ...), as the page
// writes it; undefined when the summary has no such key.
function expected(c, key) {
  if (key === 'not_reached') return String(c.devices - c.reached);
  let v = c;
  for (const part of key.split('.')) {
    if (v === null || typeof v !== 'object' || !(part in v)) return undefined;
    v = v[part];
  }
  return v === null ? '-' : String(v);
}

// Bars of a chart against the numbers they draw: one each, drawn, and in proportion (a bar of a
// value above 0 is at least one pixel; 1.5 px of rounding allowed).
export function checkBars(where, bars, values, along, failures) {
  if (bars.length !== values.length) {
    failures.push(`${where}: ${bars.length} bars drawn for ${values.length} rows of its table`);
    return;
  }
  const largest = Math.max(0, ...values);
  const longest = Math.max(0, ...bars.map((b) => b[along]));
  bars.forEach((b, i) => {
    if (values[i] > 0 && !(b.w > 0 && b.h > 0)) failures.push(`${where}: bar ${i} (value ${values[i]}) is not drawn`);
    const want = largest > 0 ? (values[i] / largest) * longest : 0;
    if (Math.abs(b[along] - Math.max(want, values[i] > 0 ? 1 : 0)) > 1.5) {
      failures.push(`${where}: bar ${i} is ${b[along].toFixed(1)} px for ${values[i]} (${want.toFixed(1)} px wanted)`);
    }
  });
}

export function checkFleet(view, summary) {
  const failures = [];
  const ids = Object.keys(summary.campaigns);
  const shown = view.sections.map((s) => s.campaign);
  for (const id of ids) if (!shown.includes(id)) failures.push(`campaign ${id} is missing`);
  for (const id of shown) if (!ids.includes(id)) failures.push(`campaign ${id} is not in the summary`);
  if (shown.length !== new Set(shown).size) failures.push('a campaign is shown twice');
  for (const key of ['devices', 'events']) {
    if (view.header[key] !== String(summary[key])) failures.push(`header ${key} ${view.header[key]} != ${summary[key]}`);
  }
  const overview = view.tables.overview ?? [];
  if (overview.length !== ids.length) failures.push(`overview has ${overview.length} rows for ${ids.length} campaigns`);
  for (const row of overview) {
    const c = summary.campaigns[row.campaign];
    if (!c) continue;
    for (const cell of row.cells) {
      if (cell.k && !agrees(c, cell.k, cell.text)) {
        failures.push(`overview ${row.campaign} ${cell.k} ${cell.text} != ${expected(c, cell.k)}`);
      }
    }
  }
  for (const s of view.sections) {
    const c = summary.campaigns[s.campaign];
    if (!c) continue;
    const where = (what) => `${s.campaign} ${what}`;
    // Every keyed cell equals the summary.
    for (const [name, rows] of Object.entries(s.tables)) {
      for (const row of rows) {
        for (const cell of row.cells) {
          if (!cell.k) continue;
          const want = expected(c, cell.k);
          if (!agrees(c, cell.k, cell.text)) failures.push(where(`${name} ${cell.k}: the table says ${cell.text}, the summary ${want}`));
        }
      }
    }
    // Every reason of the summary is in the why-not table.
    const whyRows = s.tables['why-not'] ?? [];
    const keys = new Set(whyRows.flatMap((r) => r.cells.map((x) => x.k)));
    for (const step of Object.keys(c.rejected)) if (!keys.has(`rejected.${step}`)) failures.push(where(`rejected.${step} is not shown`));
    for (const kind of Object.keys(c.why_not)) if (!keys.has(`why_not.${kind}`)) failures.push(where(`why_not.${kind} is not shown`));
    // The histogram's rows are the exact counts gathered into bins.
    const counts = Object.entries(c.first_display_seconds.counts).map(([sec, n]) => [Number(sec), n]);
    const bins = (s.tables['first-display'] ?? []).filter((r) => r.bin);
    let binned = 0;
    for (const b of bins) {
      const m = /^(-?\d+)\u2013(-?\d+) s$/.exec(b.head);
      if (!m) { failures.push(where(`first display: a bin reads "${b.head}"`)); continue; }
      const from = Number(m[1]), to = Number(m[2]);
      const want = counts.filter(([sec]) => sec >= from && sec < to).reduce((a, [, n]) => a + n, 0);
      binned += Number(b.cells[0].text);
      if (b.cells[0].text !== String(want)) failures.push(where(`first display ${from}-${to} s: the table says ${b.cells[0].text}, the counts ${want}`));
    }
    const total = counts.reduce((a, [, n]) => a + n, 0);
    if (binned !== total) failures.push(where(`first display: the bins hold ${binned} devices, the counts ${total}`));
    // Three charts, each drawn, each bar for one row.
    const charts = Object.fromEntries(s.charts.map((x) => [x.name, x]));
    for (const name of ['funnel', 'why-not', 'first-display']) {
      const chart = charts[name];
      if (!chart) { failures.push(where(`chart ${name} is missing`)); continue; }
      if (!(chart.size.w > 0 && chart.size.h > 0)) failures.push(where(`chart ${name} has no size (${chart.size.w}x${chart.size.h})`));
    }
    const cellOf = (rows, k) => Number(rows.flatMap((r) => r.cells).find((x) => x.k === k)?.text);
    const funnel = s.tables.funnel ?? [];
    if (charts.funnel) checkBars(where('funnel'), charts.funnel.bars, ['devices', 'admitted', 'reached'].map((k) => cellOf(funnel, k)), 'w', failures);
    const reasons = whyRows.filter((r) => /^(rejected|why_not)\./.test(r.cells[0]?.k ?? '') && r.cells[0].k !== 'why_not.rejected');
    if (charts['why-not']) checkBars(where('why not'), charts['why-not'].bars, reasons.map((r) => Number(r.cells[0].text)), 'w', failures);
    for (let i = 1; i < reasons.length; ++i) {
      if (Number(reasons[i].cells[0].text) > Number(reasons[i - 1].cells[0].text)) failures.push(where('why not is not largest first'));
    }
    if (charts['first-display']) checkBars(where('first display'), charts['first-display'].bars, bins.map((b) => Number(b.cells[0].text)), 'h', failures);
  }
  return failures;
}
