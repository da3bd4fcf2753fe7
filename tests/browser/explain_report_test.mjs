// `kltce run --explain --html` on the why-not example, in Chromium: every campaign of the
// document, its "why not" line as `--explain` words it, its timeline and table as `--trace` holds
// the records; screenshots under the build folder.
//   node explain_report_test.mjs --kltce TOOL --source REPO --out DIR
import fs from 'node:fs';
import path from 'node:path';
import { argsOf, openBrowser, openReport, readPage, report, screenshot } from './browser.mjs';
import { checkExplain, explainSummary } from './explain_checks.mjs';
import { kltce } from './run_tool.mjs';

const args = argsOf(process.argv.slice(2));
// The tool runs in the repository with the paths a person types (the header shows them).
const tool = path.resolve(args.kltce), source = path.resolve(args.source), out = path.resolve(args.out);
fs.mkdirSync(out, { recursive: true });
const html = path.join(out, 'explain_report.html');
const trace = path.join(out, 'explain_trace.jsonl');
const documentFile = path.join(source, 'examples/why_not.json');
const run = kltce(tool, ['run', '--document', 'examples/why_not.json', '--profile', 'examples/profile.json',
  '--events', 'examples/events.jsonl', '--fresh', '--explain', '--trace', trace, '--html', html], { cwd: source, env: { SOURCE_DATE_EPOCH: '1795338000' } });
const expected = {
  ids: JSON.parse(fs.readFileSync(documentFile, 'utf8')).configs.map((c) => c._id),
  records: fs.readFileSync(trace, 'utf8').split('\n').filter(Boolean).map((l) => JSON.parse(l)),
  summary: explainSummary(run.stderr),
};
const failures = [];
// The records pass through to --trace's file: the same file as a run without --html writes.
const plainTrace = path.join(out, 'explain_trace_plain.jsonl');
kltce(tool, ['run', '--document', 'examples/why_not.json', '--profile', 'examples/profile.json',
  '--events', 'examples/events.jsonl', '--fresh', '--trace', plainTrace], { cwd: source });
if (fs.readFileSync(plainTrace, 'utf8') !== fs.readFileSync(trace, 'utf8')) failures.push('--html changed the --trace file');
if (Object.keys(expected.summary).length !== expected.ids.length) failures.push('--explain printed no summary for every campaign');

const browser = await openBrowser();
try {
  const { page, problems } = await openReport(browser.context, html);
  failures.push(...checkExplain(await readPage(page), expected), ...problems);
  await screenshot(page, path.join(out, 'explain_report_top.png'), false);
  await screenshot(page, path.join(out, 'explain_report.png'), true);
  console.log(`screenshots in ${out}`);
} finally {
  await browser.close();
}
process.exit(report('explain report', failures).length ? 1 : 0);
