// The checks of the report tests catch what they are for: each row plants one fault in a copy of a
// report (an empty chart, a number that disagrees, a campaign left out, a status mark altered, a
// request leaving the page, ...) and expects the checks to fail with a matching message. The untouched reports pass.
//   node planted_faults_test.mjs --kltce TOOL --source REPO --out DIR
import fs from 'node:fs';
import path from 'node:path';
import { argsOf, openBrowser, openReport, readPage } from './browser.mjs';
import { checkComparison } from './compare_checks.mjs';
import { checkExplain, explainSummary } from './explain_checks.mjs';
import { checkFleet } from './fleet_checks.mjs';
import { kltce } from './run_tool.mjs';

const { kltce: tool, source, out } = argsOf(process.argv.slice(2));
const dir = path.join(out, 'planted');
fs.mkdirSync(dir, { recursive: true });

// Replaces the first match of re at or after the first `from` (a plain string) of the text.
function after(from, re, replace) {
  return (html) => {
    const at = html.indexOf(from);
    if (at < 0) throw new Error(`no ${from} in the report`);
    const tail = html.slice(at);
    if (!re.test(tail)) throw new Error(`no ${re} after ${from}`);
    return html.slice(0, at) + tail.replace(re, replace);
  };
}
const bump = (_, head, n) => `${head}${Number(n) + 1}<`;

const fleetFaults = [
  ['why-not chart emptied', after('data-chart="why-not"', /<rect [^]*?<\/svg>/, '</svg>'), /bars drawn for/],
  ['histogram emptied', after('data-chart="first-display"', /<rect [^]*?(?=<path class="mk")/, ''), /bars drawn for/],
  ['chart of no size', after('data-chart="funnel"', /width=\d+ height=\d+>/, 'width=0 height=0>'), /has no size/],
  ['admitted disagrees', after('<main>', /(data-k="admitted">)(\d+)</, bump), /funnel admitted: the table says/],
  ['overview reached disagrees', after('data-table="overview"', /(<tbody><tr[^>]*><th>.*?<\/th><td>\d+<\/td><td>\d+<\/td><td>)(\d+)</, bump), /overview .* reached/],
  ['per reached disagrees', after('<main>', /(data-k="displays_per_reached">)(\d)/, '$19'), /displays_per_reached/],
  ['histogram bin disagrees', after('<main>', /(<tr class="bin"><th>[^<]*<\/th><td>)(\d+)</, bump), /first display \d+-\d+ s: the table says/],
  ['median disagrees', after('<main>', /(data-k="first_display_seconds.median">)(\d+)</, bump), /median/],
  ['a reason left out', after('<main>', /<tr><th>count_short<\/th>[^]*?<\/tr>/, ''), /why_not.count_short is not shown/],
  ['bar out of proportion', after('data-chart="funnel"', /(<rect x=\d+ y=\d+ width=)(\d+)( height=14 class="bar b0")/, (_, h, w, t) => `${h}${Number(w) + 20}${t}`), /bar \d+ is \d/],
  ['campaign left out', after('<section', /<section[^]*?<\/section>\n/, ''), /is missing/],
  ['request leaving the page', after('</main>', /<\/main>/, '</main><img src="http://127.0.0.1:9/pixel.png" alt="">'), /request leaving the page|console error/],
  // Without the page's own policy the request is made, and the route refuses and records it.
  ['request, policy removed', (h) => after('</main>', /<\/main>/, '</main><img src="http://127.0.0.1:9/pixel.png" alt="">')(
    h.replace(/<meta http-equiv="Content-Security-Policy"[^>]*>/, '')), /^request leaving the page: http:\/\/127.0.0.1:9\/pixel.png/],
  ['script error', after('</main>', /<\/main>/, '</main><script>throw new Error("planted")</script>'), /console error|page error/],
];
const explainFaults = [
  ['why-not line altered', after('<main>', /why not: outside the window/, 'why not: inside the window'), /outcome line/],
  ['timeline mark removed', after('<main>', /<circle [^]*?<\/circle>/, ''), /marks on the timeline/],
  ['decision row removed', after('data-table="decisions"', /<tr data-seq[^]*?<\/tr>/, ''), /decisions in the table/],
  ['decision kind altered', after('data-table="decisions"', /<td>admitted<\/td>/, '<td>rejected</td>'), /the trace has/],
  ['campaign left out', after('<section', /<section[^]*?<\/section>\n/, ''), /not the document's/],
  ['timeline emptied', after('data-chart="timeline"', /width=\d+ height=\d+>/, 'width=0 height=0>'), /no size/],
];
const compareFaults = [
  ['status mark altered', after('data-status="added"', /(<span class="st s-added">)added</, '$1edited<'), /plan_upgrade is marked added \(badge edited\)/],
  ['status altered', after('<main>', /data-status="removed"/, 'data-status="edited"'), /feedback_survey is marked edited/],
  ['new value disagrees', after('<main>', /(data-k="reached\.new">)(\d+)</, bump), /figures reached\.new: the page says/],
  ['change disagrees', after('id="c-tips_banner"', /(data-k="displays\.difference">)\+4</, '$1+5<'), /displays\.difference: the page says \+5, the JSON \+4/],
  ['change without its sign', after('id="c-tips_banner"', /(data-k="displays\.difference">)\+4</, '$14<'), /the page says 4, the JSON \+4/],
  ['overview disagrees', after('data-table="overview"', /(<td>)(-17)</, '$1-16<'), /overview feedback_survey reached\.difference/],
  ['a side left out', after('id="c-welcome_offer"', /<td data-k="why_not\.count_short\.new">\d+<\/td>/, ''), /why_not\.count_short\.new is not shown/],
  ['an outcome change left out', after('id="c-welcome_offer"', /<tr><th>count_short -&gt; fired<\/th>[^]*?<\/tr>/, ''), /outcome change count_short -> fired is not shown/],
  ['gist altered', after('id="c-welcome_offer"', /count_short -&gt; fired 6/, 'count_short -&gt; fired 5'), /gist does not say "count_short -> fired 6"/],
  ['funnel bar removed', after('data-chart="funnel"', /<rect [^>]*\/>/, ''), /funnel: 5 bars drawn for 6 rows/],
  ['campaign left out', after('<section', /<section[^]*?<\/section>\n/, ''), /is missing/],
  ['script error', after('</main>', /<\/main>/, '</main><script>throw new Error("planted")</script>'), /console error|page error/],
];

// Fleet, comparison and explain reports and what they are checked against.
const doc = path.join(source, 'examples/campaigns.json');
const fleet = ['fleet', '--document', doc, '--fleet', path.join(source, 'examples/fleet/fleet.jsonl'), '--workers', '1'];
const fleetHtml = path.join(dir, 'fleet.html');
const summary = JSON.parse(kltce(tool, [...fleet, '--format', 'json', '--html', fleetHtml]).stdout);
const compareHtml = path.join(dir, 'compare.html');
const comparison = JSON.parse(kltce(tool, ['fleet', '--document', path.join(source, 'examples/fleet/campaigns_v2.json'),
  '--compare', doc, ...fleet.slice(3), '--format', 'json', '--html', compareHtml]).stdout);
const whyNot = path.join(source, 'examples/why_not.json');
const explainHtml = path.join(dir, 'explain.html');
const trace = path.join(dir, 'trace.jsonl');
const run = kltce(tool, ['run', '--document', whyNot, '--profile', path.join(source, 'examples/profile.json'),
  '--events', path.join(source, 'examples/events.jsonl'), '--fresh', '--explain', '--trace', trace, '--html', explainHtml]);
const expected = {
  ids: JSON.parse(fs.readFileSync(whyNot, 'utf8')).configs.map((c) => c._id),
  records: fs.readFileSync(trace, 'utf8').split('\n').filter(Boolean).map((l) => JSON.parse(l)),
  summary: explainSummary(run.stderr),
};

const browser = await openBrowser();
let bad = 0;
try {
  const cases = [
    ['fleet', fleetHtml, [['untouched', (h) => h, null], ...fleetFaults], (v) => checkFleet(v, summary)],
    ['compare', compareHtml, [['untouched', (h) => h, null], ...compareFaults], (v) => checkComparison(v, comparison)],
    ['explain', explainHtml, [['untouched', (h) => h, null], ...explainFaults], (v) => checkExplain(v, expected)],
  ];
  for (const [kind, file, faults, check] of cases) {
    const original = fs.readFileSync(file, 'utf8');
    for (const [name, plant, want] of faults) {
      const copy = path.join(dir, `${kind}-${name.replace(/\W+/g, '_')}.html`);
      const planted = plant(original);
      if (want && planted === original) throw new Error(`${kind} / ${name}: the fault changed nothing`);
      fs.writeFileSync(copy, planted);
      const { page, problems } = await openReport(browser.context, copy);
      const failures = [...check(await readPage(page)), ...problems];
      await page.close();
      const ok = want ? failures.some((f) => want.test(f)) : failures.length === 0;
      if (!ok) ++bad;
      const said = want ? failures.find((f) => want.test(f)) ?? failures[0] ?? 'no failure' : failures[0] ?? 'passes';
      console.log(`${ok ? 'ok  ' : 'FAIL'} ${kind.padEnd(8)} ${name.padEnd(28)} ${said}`);
    }
  }
} finally {
  await browser.close();
}
console.log(bad ? `FAIL: ${bad} planted fault(s) not caught as expected` : 'every planted fault was caught');
process.exit(bad ? 1 : 0);
