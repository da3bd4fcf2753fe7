// Opens kltce's HTML reports in headless Chromium (Debian's /usr/bin/chromium through
// playwright-core) and reads back what a person would see: the campaigns' sections, the size of
// every chart and of its bars, and the numbers of every table. The checks hold these against the
// JSON the tool prints. Exit codes of the scripts: 0 passed, 1 failed, 77 skipped (no browser).
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { pathToFileURL } from 'node:url';

export const SKIP = 77;
// KLTCE_CHROMIUM names another browser binary (a missing one shows the tests' skip).
const CHROMIUM = process.env.KLTCE_CHROMIUM ?? '/usr/bin/chromium';

export function argsOf(argv) {
  const out = {};
  for (let i = 0; i < argv.length; i += 2) out[argv[i].replace(/^--/, '')] = argv[i + 1];
  return out;
}

// Chromium with a fresh profile and nothing that calls home; skips the test when it is missing.
export async function openBrowser() {
  if (!fs.existsSync(CHROMIUM)) {
    console.log(`SKIP: ${CHROMIUM} is not installed (scripts/setup.sh installs Debian's chromium)`);
    process.exit(SKIP);
  }
  let chromium;
  try {
    ({ chromium } = await import('playwright-core'));
  } catch (e) {
    console.log(`SKIP: playwright-core is not installed in tests/browser (scripts/setup.sh runs npm ci): ${e.message}`);
    process.exit(SKIP);
  }
  const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'kltce-chromium-'));
  const context = await chromium.launchPersistentContext(profile, {
    executablePath: CHROMIUM,
    headless: true,
    viewport: { width: 1280, height: 900 },
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
  return {
    context,
    async close() {
      await context.close();
      fs.rmSync(profile, { recursive: true, force: true });
    },
  };
}

// Opens a report file; every request other than the file itself is refused and recorded, every
// console error and page error recorded. loadMillis: from the navigation to the page's first
// frame after its load event.
export async function openReport(context, file) {
  const page = await context.newPage();
  const url = pathToFileURL(path.resolve(file)).href;
  const problems = [];
  page.on('console', (m) => { if (m.type() === 'error') problems.push(`console error: ${m.text()}`); });
  page.on('pageerror', (e) => problems.push(`page error: ${e.message}`));
  await page.route('**/*', (route) => {
    if (route.request().url() === url) return route.continue();
    problems.push(`request leaving the page: ${route.request().url()}`);
    return route.abort();
  });
  const start = Date.now();
  await page.goto(url, { waitUntil: 'load' });
  await page.evaluate(() => new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done))));
  const loadMillis = Date.now() - start;
  return { page, problems, loadMillis };
}

// Sections skip rendering while off screen; a screenshot of the whole page wants them all drawn.
export async function screenshot(page, file, fullPage) {
  fs.mkdirSync(path.dirname(file), { recursive: true });
  await page.evaluate(() => document.querySelectorAll('section').forEach((s) => { s.style.contentVisibility = 'visible'; }));
  await page.screenshot({ path: file, fullPage });
}

// What the page shows, read in the page: per section its campaign, charts (size and bars) and
// tables (rows with their data attributes and texts).
export async function readPage(page) {
  return page.evaluate(() => {
    const box = (el) => { const r = el.getBoundingClientRect(); return { w: r.width, h: r.height }; };
    // A cell's summary key is its own data-k, else its column head's (the row's th is column 0).
    const table = (t) => {
      const heads = [...t.querySelectorAll('thead th')].map((th) => th.dataset.k ?? '');
      return [...t.querySelectorAll('tbody tr')].map((tr) => ({
        head: tr.querySelector('th')?.textContent ?? '',
        cells: [...tr.querySelectorAll('td')].map((td, i) => ({ k: td.dataset.k ?? heads[i + 1] ?? '', text: td.textContent })),
        bin: tr.classList.contains('bin'), seq: tr.dataset.seq, campaign: tr.dataset.campaign,
      }));
    };
    const header = {};
    document.querySelectorAll('header dd[data-k]').forEach((dd) => { header[dd.dataset.k] = dd.textContent; });
    const tables = {};
    document.querySelectorAll('body > table[data-table]').forEach((t) => { tables[t.dataset.table] = table(t); });
    const sections = [...document.querySelectorAll('main > section')].map((s) => ({
      campaign: s.dataset.campaign,
      status: s.dataset.status ?? null,
      badge: s.querySelector('h2 .st')?.textContent ?? null,
      gist: s.querySelector(':scope > p')?.textContent ?? '',
      outcome: s.querySelector('p[data-outcome]') ? {
        kind: s.querySelector('p[data-outcome]').dataset.outcome,
        text: s.querySelector('p[data-outcome]').textContent,
      } : null,
      charts: [...s.querySelectorAll('svg.chart')].map((svg) => ({
        name: svg.dataset.chart,
        size: box(svg),
        bars: [...svg.querySelectorAll('rect.bar')].map(box),
        marks: [...svg.querySelectorAll('circle.mark')].map(box),
      })),
      tables: Object.fromEntries([...s.querySelectorAll('table[data-table]')].map((t) => [t.dataset.table, table(t)])),
    }));
    return { header, tables, sections };
  });
}

// Runs named checks, printing one line per failure; returns the failures.
export function report(name, failures) {
  for (const f of failures) console.log(`FAIL ${name}: ${f}`);
  if (failures.length === 0) console.log(`ok ${name}`);
  return failures;
}
