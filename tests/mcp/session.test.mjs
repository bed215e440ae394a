// An agent's session with `kodrune-wiki mcp`, driven by the official MCP
// TypeScript SDK client over stdio: the tools and their schemas, a first
// generate, two saved pages, an edit that makes a section stale, churn that
// raises the drift warning and the replan it asks for, then the saved pages
// as resources. KODRUNE_WIKI_EXE names the binary under test.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { AjvJsonSchemaValidator } from '@modelcontextprotocol/sdk/validation/ajv';
import { ErrorCode, McpError } from '@modelcontextprotocol/sdk/types.js';

import { GitRepo } from '../node/git_repo.mjs';

const exe = process.env.KODRUNE_WIKI_EXE;

class Repo extends GitRepo {
  constructor() {
    super('kodrune-mcp-');
  }
}

// Runs `session` with a client of `kodrune-wiki mcp` serving `repo`: the
// server's stderr is shown when the session fails, and the repository goes
// with the session either way.
async function withServer(repo, session) {
  const transport = new StdioClientTransport({
    command: exe,
    args: ['mcp', '--repo', repo.root],
    cwd: repo.root,
    env: { ...process.env },
    stderr: 'pipe',
  });
  let stderr = '';
  transport.stderr.on('data', (chunk) => (stderr += chunk));
  const client = new Client({ name: 'kodrune-wiki-test', version: '1.0.0' });
  try {
    await client.connect(transport);
    await session(client);
  } catch (error) {
    if (stderr) console.error(`server stderr:\n${stderr}`);
    throw error;
  } finally {
    await client.close();
    repo.remove();
  }
}

test('an agent writes a wiki through the MCP server', async () => {
  assert.ok(exe, 'KODRUNE_WIKI_EXE must name the kodrune-wiki binary');
  const repo = new Repo();
  repo.unit('src', ['a.cpp', 'b.cpp', 'c.cpp']);
  repo.unit('lib', ['x.cpp', 'y.cpp']);
  repo.commit('seed');

  await withServer(repo, async (client) => {
    assert.equal(client.getServerVersion().name, 'kodrune-wiki');
    assert.match(client.getInstructions(), /wiki\(action="generate", replan=true\)/);

    // Tools and their schemas, each output schema checked by its own validator.
    const { tools } = await client.listTools();
    assert.deepEqual(tools.map((tool) => tool.name).sort(),
                     ['changes', 'plan', 'read_page', 'reanchor', 'save_page', 'wiki']);
    const validator = new AjvJsonSchemaValidator();
    const check = {};
    for (const tool of tools) {
      assert.equal(tool.inputSchema.type, 'object', tool.name);
      assert.equal(tool.outputSchema.type, 'object', tool.name);
      check[tool.name] = validator.getValidator(tool.outputSchema);
    }
    const byName = Object.fromEntries(tools.map((tool) => [tool.name, tool]));
    assert.deepEqual(byName.wiki.inputSchema.properties.action.enum, ['generate', 'status', 'log']);
    assert.deepEqual(byName.wiki.inputSchema.required, ['action']);
    assert.deepEqual(byName.save_page.inputSchema.required, ['page_id', 'body']);
    assert.deepEqual(Object.keys(byName.plan.inputSchema.properties).sort(), ['force', 'replan']);

    const call = async (name, args) => {
      const result = await client.callTool({ name, arguments: args });
      assert.ok(!result.isError, `${name}: ${JSON.stringify(result.content)}`);
      const verdict = check[name](result.structuredContent);
      assert.ok(verdict.valid, `${name}: ${verdict.errorMessage}`);
      assert.equal(result.content[0].type, 'text');
      return result.structuredContent;
    };
    const ids = (work) => work.pages.map((page) => page.page_id);

    // A first generate: every page is new, in build order (code pages last,
    // most important first).
    let work = await call('wiki', { action: 'generate' });
    assert.equal(work.built, true);
    assert.deepEqual(ids(work), ['overview', 'module-src', 'module-lib']);
    assert.deepEqual(work.pages[1].files, ['src/a.cpp', 'src/b.cpp', 'src/c.cpp']);
    for (const page of work.pages) {
      assert.equal(page.state, 'new');
      assert.equal(page.why, 'never written');
      assert.deepEqual(page.carry, []);
    }
    assert.equal(work.drift, null);

    // Two pages saved: one with a prose citation past the end of its file.
    const srcBody = '# src\n\nIntro.\n\n## Parsing\n\nSee [a](src/a.cpp#L1-L2).\n\n' +
                    '## Limits\n\nAnd [too far](src/a.cpp#L1-L99).\n';
    let saved = await call('save_page', { page_id: 'module-src', body: srcBody });
    assert.deepEqual(saved.citations, [{ path: 'src/a.cpp', line_start: 1, line_end: 2 }]);
    assert.deepEqual(saved.invalid_citations, [{
      path: 'src/a.cpp', line_start: 1, line_end: 99,
      reason: 'lines 1-99 are not inside src/a.cpp (3 lines)',
    }]);
    assert.deepEqual(saved.sections.map((s) => [s.heading, s.files]),
                     [['Parsing', ['src/a.cpp']], ['Limits', []]]);
    assert.equal(saved.uri, 'wiki://main/pages/module-src.md');
    const libBody = '# lib\n\n## Api\n\nx and y.\n';
    const libCitations = [{ path: 'lib/x.cpp', line_start: 1, line_end: 3, symbol: 'x' }];
    saved = await call('save_page',
                       { page_id: 'module-lib', body: libBody, citations: libCitations, title: 'The library' });
    assert.deepEqual(saved.citations, libCitations);
    assert.deepEqual(saved.invalid_citations, []);
    assert.equal(saved.title, 'The library');
    assert.deepEqual(ids(await call('wiki', { action: 'status' })), ['overview']);
    const plan = await call('plan', {});
    assert.deepEqual([plan.planned, plan.new, plan.stale, plan.fresh], [3, 0, 1, 2]);
    assert.deepEqual(plan.amendments, []);

    // An edit inside the cited lines: the page comes first, its cited lines
    // named. A line above lib's cited lines only moves them.
    repo.write('src/a.cpp', 'int a() {\n  return 2;\n}\n');
    repo.write('lib/x.cpp', '// x\nint x() {\n  return 1;\n}\n');
    work = await call('wiki', { action: 'generate' });
    assert.deepEqual(ids(work), ['module-src', 'overview', 'module-lib']);
    const src = work.pages[0];
    assert.equal(src.state, 'stale');
    assert.equal(src.why, 'cited lines changed: src/a.cpp L1-L2; files changed: src/a.cpp');
    assert.deepEqual(src.stale_sections, ['Parsing']);
    assert.deepEqual(src.changed_sections, ['Parsing']);
    assert.equal(src.reanchor, false);
    assert.deepEqual(src.changed_files, { added: [], removed: [], modified: ['src/a.cpp'] });
    const libPage = work.pages[2];
    assert.equal(libPage.why,
                 'files changed: lib/x.cpp; cited lines moved: lib/x.cpp L1-L3 to L2-L4; reanchor suffices');
    assert.equal(libPage.reanchor, true);
    const changes = await call('changes', { page_ids: ['module-src', 'module-lib'] });
    assert.deepEqual(changes.changes['module-src'].stale_sections, ['Parsing']);
    assert.deepEqual(changes.changes['module-src'].citations, [{
      section: 'Parsing', path: 'src/a.cpp', line_start: 1, line_end: 2, state: 'changed', now: null,
    }]);
    assert.deepEqual(changes.changes['module-lib'].changed_files.modified, ['lib/x.cpp']);
    assert.deepEqual(changes.changes['module-lib'].citations, [{
      section: null, path: 'lib/x.cpp', line_start: 1, line_end: 3, state: 'moved',
      now: { line_start: 2, line_end: 4 },
    }]);
    assert.deepEqual(changes.changes['module-lib'].changed_sections, []);

    // Re-anchoring: refused where prose must change, done where lines only moved.
    const refused = await client.callTool({ name: 'reanchor', arguments: { page_ids: ['module-src'] } });
    assert.equal(refused.isError, true);
    assert.match(refused.content[0].text, /module-src: cited lines changed: src\/a\.cpp L1-L2/);
    const reanchored = await call('reanchor', {});
    assert.deepEqual(reanchored.reanchored.map((page) => [page.page_id, page.moved]),
                     [['module-lib', ['lib/x.cpp L1-L3 to L2-L4']]]);
    assert.deepEqual(reanchored.reanchored[0].citations,
                     [{ path: 'lib/x.cpp', line_start: 2, line_end: 4, symbol: 'x' }]);
    assert.deepEqual(ids(await call('wiki', { action: 'status' })), ['module-src', 'overview']);

    // A lone file goes to the catch-all page, which is then written.
    repo.unit('extra', ['one.cpp']);
    repo.commit('a lone file');
    work = await call('wiki', { action: 'generate' });
    assert.ok(ids(work).includes('module-additional'), ids(work).join(' '));
    const additionalBody = '# Other code\n\n## One\n\nThe extra unit.\n';
    await call('save_page', { page_id: 'module-additional', body: additionalBody });

    // Churn: three new units against a small plan raise the drift warning,
    // which names the call to make; made exactly as written.
    for (const folder of ['n1', 'n2', 'n3']) repo.unit(folder, ['p.cpp', 'q.cpp']);
    repo.commit('three new units');
    work = await call('wiki', { action: 'generate' });
    assert.match(work.drift, /^3 structural amendments against a \d+-page plan — the pinned structure is churning/);
    const asked = /wiki\(action="(\w+)", replan=(true|false)\)/.exec(work.drift);
    assert.ok(asked, work.drift);
    work = await call('wiki', { action: asked[1], replan: asked[2] === 'true' });
    assert.equal(work.replan, true);
    const extra = work.pages.find((page) => page.page_id === 'module-extra');
    assert.ok(extra, ids(work).join(' '));
    assert.deepEqual(extra.carry, [{ page_id: 'module-additional', how: 'seeds', body: additionalBody }]);
    assert.ok(work.amendments.some((a) => a.action === 'remap' && a.page_id === 'module-additional'));
    const log = await call('wiki', { action: 'log', limit: 1 });
    assert.equal(log.entries.length, 1);
    assert.equal(log.entries[0].replan, true);

    // Failures on input: an isError answer with the command's line, or
    // invalid params for a bad type; neither changes the stored page.
    let failed = await client.callTool({ name: 'save_page', arguments: { page_id: 'module-nope', body: 'x' } });
    assert.equal(failed.isError, true);
    assert.equal(failed.content[0].text,
                 'kodrune-wiki: error: page id "module-nope" is not in the current plan of branch main');
    failed = await client.callTool({ name: 'save_page', arguments: { page_id: 'module-lib', body: 'broken \ud800 text' } });
    assert.equal(failed.isError, true);
    assert.match(failed.content[0].text,
                 /^kodrune-wiki: error: body of page "module-lib" is not valid UTF-8: bad byte 0xed at offset 7$/);
    await assert.rejects(client.callTool({ name: 'wiki', arguments: { action: 'generate', replan: 'yes' } }),
                         (error) => error instanceof McpError && error.code === ErrorCode.InvalidParams &&
                                    /arguments\.replan must be a boolean/.test(error.message));
    assert.equal((await call('read_page', { page_id: 'module-lib' })).body, libBody);

    // The saved pages as resources (the replan retired the catch-all page).
    const { resources } = await client.listResources();
    assert.deepEqual(resources.map((r) => r.uri).sort(), [
      'wiki://main/pages/module-lib.md',
      'wiki://main/pages/module-src.md',
    ]);
    const lib = resources.find((r) => r.name === 'module-lib');
    assert.equal(lib.title, 'The library');
    assert.equal(lib.mimeType, 'text/markdown');
    const read = await client.readResource({ uri: 'wiki://main/pages/module-src.md' });
    assert.deepEqual(read.contents, [{ uri: 'wiki://main/pages/module-src.md', mimeType: 'text/markdown', text: srcBody }]);
    await assert.rejects(client.readResource({ uri: 'wiki://main/pages/overview.md' }),
                         (error) => error instanceof McpError && error.code === -32002);
    await client.ping();
  });
});

// A plan of 70 pages, one of them a catch-all page of 30 files, read as an
// agent reads it: the work list a slice at a time, the cut file list through
// its resource, and a long saved body in slices.
test('long lists and bodies come in slices', async () => {
  assert.ok(exe, 'KODRUNE_WIKI_EXE must name the kodrune-wiki binary');
  const repo = new Repo();
  // More units than the page budget: the last ones share the catch-all page.
  for (let unit = 0; unit < 70; ++unit) {
    repo.unit(`u${String(unit).padStart(2, '0')}`, ['a.cpp', 'b.cpp', 'c.cpp']);
  }
  repo.commit('seed');
  await withServer(repo, async (client) => {
    const call = async (name, args) => {
      const result = await client.callTool({ name, arguments: args });
      assert.ok(!result.isError, `${name}: ${JSON.stringify(result.content)}`);
      assert.ok(Buffer.byteLength(result.content[0].text) <= 4096, name);
      assert.ok(Buffer.byteLength(JSON.stringify(result)) <= 65536, name);
      return result;
    };

    // The default slice, then a walk with a small limit that meets every page once.
    const first = (await call('wiki', { action: 'generate' })).structuredContent;
    assert.equal(first.pages.length, 25);
    assert.equal(first.total, first.planned);
    assert.equal(typeof first.next_cursor, 'string');
    const walked = [];
    let cursor;
    for (let slices = 0; slices < 20; ++slices) {
      const args = { action: 'status', limit: 8 };
      if (cursor !== undefined) args.cursor = cursor;
      const slice = (await call('wiki', args)).structuredContent;
      assert.ok(slice.pages.length <= 8);
      walked.push(...slice.pages.map((page) => page.page_id));
      cursor = slice.next_cursor;
      if (cursor === null) break;
    }
    assert.equal(cursor, null);
    const all = (await call('wiki', { action: 'status', limit: 0 })).structuredContent;
    assert.equal(all.next_cursor, null);
    assert.deepEqual(walked, all.pages.map((page) => page.page_id));
    assert.equal(new Set(walked).size, first.total);
    assert.deepEqual(walked.slice(0, 25), first.pages.map((page) => page.page_id));
    const refused = await client.callTool({ name: 'wiki', arguments: { action: 'status', cursor: 'nonsense' } });
    assert.equal(refused.isError, true);
    assert.match(refused.content[0].text, /cursor "nonsense" is not one this server gave/);

    // The catch-all page's files: 20 listed, the rest counted, all of them one read away.
    const catchAll = all.pages.find((page) => page.files_total !== undefined);
    assert.ok(catchAll, JSON.stringify(all.pages.map((page) => [page.page_id, page.files.length])));
    assert.equal(catchAll.files.length, 20);
    assert.ok(catchAll.files_total > 20);
    assert.match(catchAll.files_summary, /^3 files in u\d\d, 3 files in u\d\d, 3 files in u\d\d; \d+ more$/);
    const listed = await client.readResource({ uri: catchAll.files_uri });
    const files = listed.contents[0].text.trimEnd().split('\n');
    assert.equal(files.length, catchAll.files_total);
    assert.deepEqual(files.slice(0, 20), catchAll.files);
    for (const file of files) assert.ok(fs.existsSync(path.join(repo.root, file)), file);
    const sliceOfCatchAll = await call('wiki', { action: 'status', limit: 0 });
    assert.ok(sliceOfCatchAll.content.some((item) => item.type === 'resource_link' && item.uri === catchAll.files_uri));

    // A body past the bound comes in slices that join up to it.
    const line = '- a line of the page, long enough to fill it quickly: u00/a.cpp\n';
    const body = '# u00\n\n' + line.repeat(3000);
    await call('save_page', { page_id: 'module-u00', body });
    let offset = 0;
    let joined = '';
    let slices = 0;
    while (offset !== null) {
      const read = (await call('read_page', { page_id: 'module-u00', offset })).structuredContent;
      assert.equal(read.offset, offset);
      assert.equal(read.size, Buffer.byteLength(body));
      joined += read.body;
      offset = read.next_offset;
      ++slices;
    }
    assert.equal(joined, body);
    assert.ok(slices > 1);

    // A status reuses what the one before it worked out, but never past a
    // change: a save by another process, an edit, a committed new unit.
    const listed_ids = async () =>
      (await call('wiki', { action: 'status', limit: 0 })).structuredContent.pages.map((page) => page.page_id);
    let before = await listed_ids();
    assert.ok(before.includes('module-u01'));
    assert.deepEqual(await listed_ids(), before);
    const bodyFile = path.join(repo.root, 'u01-body.md');
    fs.writeFileSync(bodyFile, '# u01\n\nSee [a](u01/a.cpp#L1-L2).\n');
    execFileSync(exe, ['save', 'module-u01', bodyFile, '--repo', repo.root]);
    before = await listed_ids();
    assert.ok(!before.includes('module-u01'), before.join(' '));
    repo.write('u01/a.cpp', 'int a() {\n  return 2;\n}\n');
    const edited = await listed_ids();
    assert.equal(edited[0], 'module-u01');
    const catchAllFiles = async () => (await call('wiki', { action: 'status', limit: 0 }))
      .structuredContent.pages.find((page) => page.page_id === catchAll.page_id).files_total;
    const filesBefore = await catchAllFiles();
    repo.unit('v00', ['a.cpp', 'b.cpp']);
    repo.commit('a new unit past the page budget');
    assert.equal(await catchAllFiles(), filesBefore + 2);
  });
});
