// `kodrune-wiki serve` and the `export --html` site in a real headless
// Chromium (Debian's, driven by puppeteer-core): the page tree and badges, a
// rendered page whose citation opens the source view, a stale section after
// an edit, the history with a drift warning, hostile bodies, refused
// requests, and the static site from file://. KODRUNE_WIKI_EXE names the
// binary under test; a browser that cannot start fails the test.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

import { Repo, chromium, exe, launchBrowser, rawGet, serve } from './support.mjs';

const BODY = `# src

Lead paragraph.

## Uses

[a](src/a.cpp#L1-L3) returns one.

| name | role |
|------|------|
| a    | first |

\`\`\`cpp
int a();
\`\`\`

## Others

[b](src/b.cpp#L1-L3) returns one too.

<script>window.__pwned = 1</script>

Inline <img src="x" onerror="window.__pwned = 2"> image.
`;

test('the wiki in a browser: serve and the static site', { timeout: 240000 }, async (t) => {
  assert.ok(exe, 'KODRUNE_WIKI_EXE must name the kodrune-wiki binary');
  assert.ok(fs.existsSync(chromium), `no browser at ${chromium}: run scripts/setup.sh`);
  const repo = new Repo();
  repo.unit('src', ['a.cpp', 'b.cpp', 'c.cpp']);
  repo.unit('lib', ['x.cpp', 'y.cpp']);
  repo.commit('seed');
  repo.wiki('plan');
  fs.writeFileSync(path.join(repo.root, '..', path.basename(repo.root) + '.body.md'), BODY);
  const bodyFile = path.join(repo.root, '..', path.basename(repo.root) + '.body.md');
  repo.wiki('save', 'module-src', bodyFile);

  const { server, started, stderr } = serve(repo);
  const { browser, profile } = await launchBrowser();
  t.after(async () => {
    await browser.close();
    if (server.exitCode === null) server.kill('SIGKILL');
    fs.rmSync(profile, { recursive: true, force: true });
    fs.rmSync(bodyFile, { force: true });
    repo.remove();
  });
  const start = await started;
  assert.equal(start.read_only, true);
  assert.equal(start.address, '127.0.0.1');
  const base = start.url;
  assert.match(base, /^http:\/\/127\.0\.0\.1:\d+\/$/);
  const page = await browser.newPage();
  await page.setJavaScriptEnabled(false);  // the pages must work without scripts

  await t.test('the page tree and its badges', async () => {
    await page.goto(base);
    const tree = await page.$$eval('nav.tree li', (items) =>
      items.map((li) => [li.dataset.page, li.dataset.state, li.querySelector('.badge').textContent]));
    assert.deepEqual(Object.fromEntries(tree.map(([id, ...rest]) => [id, rest])), {
      overview: ['unwritten', 'never written'],
      'module-src': ['fresh', 'fresh'],
      'module-lib': ['unwritten', 'never written'],
    });
    assert.equal(tree.length, 3);
  });

  await t.test('every page in one click, on a tree page of its own with badges', async () => {
    await page.goto(new URL('pages/module-src.html', base).href);
    await Promise.all([page.waitForNavigation(), page.click('header a[href="/tree.html"]')]);
    const tree = await page.$$eval('main nav.tree li', (items) =>
      items.map((li) => [li.dataset.page, li.querySelector('.badge').textContent]));
    assert.deepEqual(Object.fromEntries(tree), {
      overview: 'never written',
      'module-src': 'fresh',
      'module-lib': 'never written',
    });
    assert.equal(await page.$$eval('div.layout > nav.tree', (n) => n.length), 0);
  });

  await t.test('a saved page rendered, its citation opening the source view', async () => {
    await page.goto(new URL('pages/module-src.html', base).href);
    assert.equal(await page.$eval('article table td', (td) => td.textContent), 'a');
    assert.equal(await page.$eval('article pre code', (c) => c.textContent), 'int a();\n');
    const text = await page.$eval('article', (a) => a.textContent);
    assert.ok(text.includes('<script>window.__pwned = 1</script>'), 'the script arrives as text');
    assert.ok(text.includes('<img src="x" onerror="window.__pwned = 2">'), 'the img arrives as text');
    assert.equal(await page.$$eval('article script, article img', (n) => n.length), 0);
    const link = await page.$('article a[href*="source/src/a.cpp.html"]');
    assert.ok(link, 'the citation links to the source view');
    await Promise.all([page.waitForNavigation(), link.click()]);
    const url = new URL(page.url());
    assert.equal(url.pathname, '/source/src/a.cpp.html');
    assert.equal(url.hash, '#L1');
    const cited = await page.$$eval('pre.source span.cited', (lines) => lines.map((l) => l.id));
    assert.deepEqual(cited, ['L1', 'L2', 'L3']);
  });

  await t.test('scripts in a body never run, even with scripts on', async () => {
    const scripted = await browser.newPage();
    await scripted.goto(new URL('pages/module-src.html', base).href);
    assert.equal(await scripted.evaluate(() => window.__pwned), undefined);
    await scripted.close();
  });

  await t.test('an edited cited file makes its section stale on reload', async () => {
    repo.write('src/a.cpp', 'int a() {\n  return 2;\n}\n');
    await page.goto(new URL('pages/module-src.html', base).href);
    assert.equal(await page.$eval('h1 .badge', (b) => b.textContent), 'stale');
    const stale = await page.$$eval('section.stale', (s) => s.map((x) => x.dataset.heading));
    assert.deepEqual(stale, ['Uses']);
    const note = await page.$eval('section.stale .stale-note', (n) => n.textContent);
    assert.match(note, /src\/a\.cpp/);
    const states = await page.$$eval('section.stale li.citation', (l) => l.map((x) => x.textContent));
    assert.deepEqual(states, ['src/a.cpp L1-L3: changed']);
    const change = await page.$eval('li[data-path="src/a.cpp"] .change', (c) => c.textContent);
    assert.equal(change, 'modified since the save');
    await page.goto(base);
    assert.equal(await page.$eval('li[data-page="module-src"]', (li) => li.dataset.state), 'stale');
  });

  await t.test("an edit of another page's file shows in the sidebar within seconds", async () => {
    repo.wiki('save', 'module-lib', bodyFile);
    const state = async () => {
      await page.goto(new URL('pages/module-src.html', base).href);
      return page.$eval('li[data-page="module-lib"]', (li) => li.dataset.state);
    };
    // Files written within two seconds of a read make the server read
    // everything again at each request; past that, only the requested
    // page's own files are checked at every request, the others swept at
    // most once a second.
    await new Promise((resolve) => setTimeout(resolve, 2500));
    assert.equal(await state(), 'fresh');
    assert.equal(await state(), 'fresh');
    repo.write('lib/x.cpp', 'int x() {\n  return 2;\n}\n');
    let seen = await state();
    for (let tries = 0; seen !== 'stale' && tries < 50; tries += 1) {
      await new Promise((resolve) => setTimeout(resolve, 100));
      seen = await state();
    }
    assert.equal(seen, 'stale');
  });

  await t.test('the history after builds with amendments and a drift warning', async () => {
    repo.unit('tools', ['t1.cpp', 't2.cpp']);
    repo.commit('one unit');
    repo.wiki('plan');
    for (const unit of ['u1', 'u2', 'u3']) repo.unit(unit, ['p.cpp', 'q.cpp']);
    repo.commit('three units');
    const third = JSON.parse(repo.wiki('plan', '--json'));
    assert.ok(third.drift, 'the third build warns of drift');
    await page.goto(new URL('history.html', base).href);
    const builds = await page.$$eval('ol.timeline > li', (items) =>
      items.map((li) => [li.classList.contains('drift'), li.querySelectorAll('li.amendment').length]));
    // Newest first: three adds with the warning, one add, the first plan.
    assert.deepEqual(builds.map(([drift]) => drift), [true, false, false]);
    assert.deepEqual(builds.slice(0, 2).map(([, count]) => count), [3, 1]);
    assert.equal(await page.$$eval('svg.chart rect.bar', (bars) => bars.length), 3);
    assert.equal(await page.$$eval('svg.chart line.threshold', (l) => l.length), 1);
  });

  await t.test('traversal and foreign hosts are refused', async () => {
    const host = new URL(base).host;
    for (const target of [
      '/source/..%2F..%2Fetc%2Fpasswd.html',
      '/source/%2e%2e/%2e%2e/etc/passwd.html',
      '/source/../../etc/passwd.html',
      '/source/src%00/a.cpp.html',
      '/source/memory/orvane/main/plan-log.jsonl.html',
      '/pages/..%2Fmodule-src.html',
    ]) {
      const response = await rawGet(base, target, host);
      assert.equal(response.status, 404, target);
      assert.equal(response.body, 'Not found\n', target);
    }
    const foreign = await rawGet(base, '/', 'evil.example:80');
    assert.equal(foreign.status, 403);
    const own = await rawGet(base, '/', host);
    assert.equal(own.status, 200);
    assert.match(own.headers['content-security-policy'], /default-src 'none'/);
  });

  await t.test('the static site from file://', async () => {
    const site = fs.mkdtempSync(path.join(os.tmpdir(), 'kodrune-site-'));
    t.after(() => fs.rmSync(site, { recursive: true, force: true }));
    repo.wiki('export', '--html', site);
    await page.goto(base);
    const served = await page.$$eval('nav.tree li', (l) => l.map((x) => [x.dataset.page, x.dataset.state]));
    await page.goto('file://' + path.join(site, 'index.html'));
    const exported = await page.$$eval('nav.tree li', (l) => l.map((x) => [x.dataset.page, x.dataset.state]));
    assert.deepEqual(exported, served);
    await Promise.all([page.waitForNavigation(), page.click('nav.tree li[data-page="module-src"] > a')]);
    assert.equal(page.url(), 'file://' + path.join(site, 'pages', 'module-src.html'));
    assert.deepEqual(await page.$$eval('section.stale', (s) => s.map((x) => x.dataset.heading)), ['Uses']);
    await Promise.all([page.waitForNavigation(), page.click('article a[href*="source/src/a.cpp.html"]')]);
    assert.equal(page.url(), 'file://' + path.join(site, 'source', 'src', 'a.cpp.html') + '#L1');
    assert.equal(await page.$eval('#L1', (l) => l.classList.contains('cited')), true);
    await Promise.all([page.waitForNavigation(), page.click('header a[href$="history.html"]')]);
    assert.equal(await page.$$eval('ol.timeline > li', (l) => l.length), 3);
    await Promise.all([page.waitForNavigation(), page.click('header a[href$="tree.html"]')]);
    assert.equal(page.url(), 'file://' + path.join(site, 'tree.html'));
    const tree = await page.$$eval('main nav.tree li', (l) => l.map((x) => [x.dataset.page, x.dataset.state]));
    assert.deepEqual(tree, served);
  });

  await t.test('plan and save beside a server answering in a loop lose nothing', async () => {
    const host = new URL(base).host;
    let looping = true;
    let answered = 0;
    const loop = (async () => {
      while (looping) {
        const response = await rawGet(base, '/pages/module-src.html', host);
        assert.equal(response.status, 200);
        answered += 1;
      }
    })();
    for (let round = 0; round < 4; round += 1) {
      fs.writeFileSync(bodyFile, `${BODY}\nRound ${round} of the loop.\n`);
      await repo.wikiAsync('save', 'module-src', bodyFile);
      await repo.wikiAsync('plan');
      const response = await rawGet(base, '/pages/module-src.html', host);
      assert.ok(response.body.includes(`Round ${round} of the loop.`), `round ${round} shows`);
    }
    looping = false;
    await loop;
    assert.ok(answered > 0);
    const plan = JSON.parse(repo.wiki('plan', '--json'));
    const saved = plan.plans.find((p) => p.page_id === 'module-src');
    assert.equal(saved.state, 'fresh');
  });

  await t.test('SIGTERM stops the server cleanly', async () => {
    const exited = new Promise((resolve) => server.once('exit', (code, signal) => resolve([code, signal])));
    server.kill('SIGTERM');
    assert.deepEqual(await exited, [0, null], stderr());
  });
});
