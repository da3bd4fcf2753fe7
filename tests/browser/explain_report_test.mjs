// `kltce run --explain --html` on the why-not example, in Chromium: every campaign of the
// document, its "why not" line as `--explain` words it, its timeline and table as `--trace` holds
// the records; screenshots under the build folder.
//   node explain_report_test.mjs --kltce TOOL --source REPO --out DIR
import fs from 'node:fs';
import path from 'node:path';
import { argsOf, openBrowser, openReport, readPage, report, screenshot } from './browser.mjs';
import { checkExplain, explainSummary } from './explain_checks.mjs';
import { kltce } from './run_tool.mjs';

const { kltce: tool, source, out } = argsOf(process.argv.slice(2));
fs.mkdirSync(out, { recursive: true });
const html = path.join(out, 'explain_report.html');
const trace = path.join(out, 'explain_trace.jsonl');
const documentFile = path.join(source, 'examples/why_not.json');
const run = kltce(tool, ['run', '--document', documentFile, '--profile', path.join(source, 'examples/profile.json'),
  '--events', path.join(source, 'examples/events.jsonl'), '--fresh', '--explain', '--trace', trace, '--html', html]);
const expected = {
  ids: JSON.parse(fs.readFileSync(documentFile, 'utf8')).configs.map((c) => c._id),
  records: fs.readFileSync(trace, 'utf8').split('\n').filter(Boolean).map((l) => JSON.parse(l)),
  summary: explainSummary(run.stderr),
};
const failures = [];
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
