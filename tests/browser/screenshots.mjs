// Takes the README's screenshots with the browser the test uses: a page with
// a stale section, and the history with a drift warning, on a throwaway
// repository. Usage: node screenshots.mjs OUT_DIR (KODRUNE_WIKI_EXE set).
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

import { Repo, launchBrowser, serve } from './support.mjs';

const out = path.resolve(process.argv[2] || '.');
const repo = new Repo();
repo.unit('src/parser', ['lexer.cpp', 'tokens.cpp', 'grammar.cpp']);
repo.unit('src/store', ['rows.cpp', 'cache.cpp']);
repo.commit('seed');
repo.wiki('plan');
const body = path.join(os.tmpdir(), `kodrune-shot-${process.pid}.md`);
fs.writeFileSync(body, `# The parser

The parser turns a file into tokens, then into a tree.

## Lexing

[The lexer](src/parser/lexer.cpp#L1-L3) reads one character at a time and
returns a token code.

## Tokens

[Token codes](src/parser/tokens.cpp#L1-L3) are small integers:

| code | meaning |
|------|---------|
| 1    | identifier |
| 2    | number |

## Grammar

[The grammar](src/parser/grammar.cpp#L1-L3) is hand-written:

\`\`\`cpp
int g() { return 1; }
\`\`\`
`);
repo.wiki('save', 'module-src-parser', body);
repo.write('src/parser/lexer.cpp', 'int l() {\n  return 2;\n}\n');
repo.unit('tools', ['cli.cpp', 'args.cpp']);
repo.commit('a unit');
repo.wiki('plan');
for (const unit of ['net', 'io', 'log']) repo.unit(unit, ['a.cpp', 'b.cpp']);
repo.commit('three units');
repo.wiki('plan');

const { server, started } = serve(repo);
const { browser, profile } = await launchBrowser();
try {
  const { url } = await started;
  const page = await browser.newPage();
  await page.setViewport({ width: 1200, height: 760 });
  await page.goto(new URL('pages/module-src-parser.html', url).href);
  await page.screenshot({ path: path.join(out, 'screenshot-page.png') });
  await page.goto(new URL('history.html', url).href);
  await page.screenshot({ path: path.join(out, 'screenshot-history.png') });
} finally {
  await browser.close();
  server.kill('SIGTERM');
  fs.rmSync(profile, { recursive: true, force: true });
  fs.rmSync(body, { force: true });
  repo.remove();
}
