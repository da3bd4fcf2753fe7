// `kltce fleet --compare --html` on the shipped fleet and its two documents, in Chromium: the
// report against the comparison's JSON, no console error and nothing fetched, the table printed
// as without --html, the report of merged shards equal to one run's, and screenshots under the
// build folder.
//   node compare_report_test.mjs --kltce TOOL --source REPO --out DIR
import fs from 'node:fs';
import path from 'node:path';
import { argsOf, openBrowser, openReport, readPage, report, screenshot } from './browser.mjs';
import { checkComparison } from './compare_checks.mjs';
import { kltce } from './run_tool.mjs';

const args = argsOf(process.argv.slice(2));
// The tool runs in the repository with the paths a person types (the header shows them).
const tool = path.resolve(args.kltce), source = path.resolve(args.source), out = path.resolve(args.out);
fs.mkdirSync(out, { recursive: true });
const documents = ['--document', 'examples/fleet/campaigns_v2.json', '--compare', 'examples/campaigns.json'];
const fleet = ['fleet', ...documents, '--fleet', 'examples/fleet/fleet.jsonl'];
const env = { SOURCE_DATE_EPOCH: '1795338000' };
const run = (argv, options = {}) => kltce(tool, argv, { cwd: source, ...options });
const html = path.join(out, 'compare_report.html');

const comparison = JSON.parse(run([...fleet, '--workers', '1', '--format', 'json']).stdout);
const table = run([...fleet, '--workers', '2']).stdout;
const withHtml = run([...fleet, '--workers', '2', '--html', html], { env }).stdout;
const failures = [];
if (withHtml !== table) failures.push('the table printed with --html differs from the one without');
// Shards merged make the same report, header aside (run at / merged at).
const parts = [0, 1].map((i) => {
  const file = path.join(out, `compare_part${i}.json`);
  fs.writeFileSync(file, run([...fleet, '--workers', '1', '--shard', `${i}/2`, '--format', 'json']).stdout);
  return file;
});
const merged = path.join(out, 'compare_merged_report.html');
run(['fleet', 'merge', ...documents, '--html', merged, ...parts], { env });
const body = (file) => fs.readFileSync(file, 'utf8').replace(/<dt>(run|merged) at<\/dt>/, '');
if (body(merged) !== body(html)) failures.push('the report of the merged shards differs from the report of one run');

const browser = await openBrowser();
try {
  const { page, problems, loadMillis } = await openReport(browser.context, html);
  failures.push(...checkComparison(await readPage(page), comparison), ...problems);
  await screenshot(page, path.join(out, 'compare_report_top.png'), false);
  await screenshot(page, path.join(out, 'compare_report.png'), true);
  console.log(`opened in ${loadMillis} ms; screenshots in ${out}`);
} finally {
  await browser.close();
}
process.exit(report('comparison report', failures).length ? 1 : 0);
