// What the report of one device's replay must show, held against the document, `--trace`'s
// records and `--explain`'s summary: every campaign of the document, its "why not" (or fired)
// line as the summary words it, a timeline drawn with one mark per decision, and a table whose rows
// are the trace's records of that campaign, in order, with their kind and stream line.

// "summary:" lines of --explain's text: campaign -> text.
export function explainSummary(stderr) {
  const out = {};
  const at = stderr.lastIndexOf('\nsummary:\n');
  if (at < 0) return out;
  for (const line of stderr.slice(at + 10).split('\n')) {
    const m = /^ {2}(\S+) +(.*)$/.exec(line);
    if (m) out[m[1]] = m[2];
  }
  return out;
}

export function checkExplain(view, { ids, records, summary }) {
  const failures = [];
  const shown = view.sections.map((s) => s.campaign);
  if (JSON.stringify([...shown].sort()) !== JSON.stringify([...ids].sort())) {
    failures.push(`campaigns shown ${JSON.stringify(shown)} are not the document's ${JSON.stringify(ids)}`);
  }
  const outcomes = view.tables.outcomes ?? [];
  if (outcomes.length !== ids.length) failures.push(`the outcomes table has ${outcomes.length} rows for ${ids.length} campaigns`);
  for (const s of view.sections) {
    const where = (what) => `${s.campaign}: ${what}`;
    const text = summary[s.campaign];
    if (!s.outcome) {
      failures.push(where('no outcome line'));
    } else {
      const want = s.outcome.kind === 'fired' ? text : `why not: ${text}`;
      if (s.outcome.text !== want) failures.push(where(`the outcome line "${s.outcome.text}" is not "${want}"`));
      if (s.outcome.kind === 'fired' !== /^fired /.test(text ?? '')) failures.push(where(`outcome ${s.outcome.kind} for "${text}"`));
    }
    const mine = records.filter((r) => r.campaign === s.campaign);
    const rows = s.tables.decisions ?? [];
    if (rows.length !== mine.length) failures.push(where(`${rows.length} decisions in the table, ${mine.length} in the trace`));
    rows.forEach((row, i) => {
      const r = mine[i];
      if (!r) return;
      const [seq, line, , kind] = row.cells.map((c) => c.text);
      if (seq !== String(r.seq) || line !== String(r.line) || kind !== r.kind) {
        failures.push(where(`row ${i} reads seq ${seq} line ${line} ${kind}; the trace has seq ${r.seq} line ${r.line} ${r.kind}`));
      }
    });
    const timeline = s.charts.find((c) => c.name === 'timeline');
    if (!timeline) {
      failures.push(where('no timeline'));
      continue;
    }
    if (!(timeline.size.w > 0 && timeline.size.h > 0)) failures.push(where('the timeline has no size'));
    if (timeline.marks.length !== rows.length) failures.push(where(`${timeline.marks.length} marks on the timeline for ${rows.length} decisions`));
    if (timeline.marks.some((m) => !(m.w > 0 && m.h > 0))) failures.push(where('a mark of the timeline is not drawn'));
  }
  return failures;
}
