// Runs kltce and returns what it printed; stops the test when it fails.
import { spawnSync } from 'node:child_process';

// cwd: where it runs (files named relative to it read as a person would type them).
export function kltce(tool, args, { expectCode = 0, env = {}, cwd = undefined } = {}) {
  const r = spawnSync(tool, args, { encoding: 'utf8', maxBuffer: 1 << 30, env: { ...process.env, ...env }, cwd });
  if (r.status !== expectCode) {
    console.log(`FAIL: kltce ${args.join(' ')} exited ${r.status}\n${r.stderr}`);
    process.exit(1);
  }
  return r;
}
