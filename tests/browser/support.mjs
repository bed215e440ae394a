// What the browser test and the screenshot script share: a throwaway git
// repository, `kodrune-wiki serve` started on a port the system picks, and
// Debian's chromium launched headless with a profile of its own.
import { execFile, execFileSync, spawn } from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';
import readline from 'node:readline';

import puppeteer from 'puppeteer-core';

import { GitRepo } from '../node/git_repo.mjs';

export const exe = process.env.KODRUNE_WIKI_EXE;
export const chromium = process.env.KODRUNE_CHROMIUM || '/usr/bin/chromium';

export class Repo extends GitRepo {
  constructor() {
    super('kodrune-browser-');
  }
  wiki(...args) {
    return execFileSync(exe, [...args, '--repo', this.root], { cwd: this.root, encoding: 'utf8' });
  }
  // The same without blocking, so that a server can be asked meanwhile.
  wikiAsync(...args) {
    return new Promise((resolve, reject) => {
      execFile(exe, [...args, '--repo', this.root], { cwd: this.root, encoding: 'utf8' },
        (error, stdout) => (error ? reject(error) : resolve(stdout)));
    });
  }
}

// Starts `serve --json` and resolves with its URL once the start line is out.
export function serve(repo) {
  const server = spawn(exe, ['serve', '--json', '--port', '0', '--repo', repo.root], {
    cwd: repo.root,
    stdio: ['ignore', 'pipe', 'pipe'],
  });
  let stderr = '';
  server.stderr.on('data', (chunk) => (stderr += chunk));
  const started = new Promise((resolve, reject) => {
    const lines = readline.createInterface({ input: server.stdout });
    lines.once('line', (line) => resolve(JSON.parse(line)));
    server.once('exit', (code) => reject(new Error(`serve exited with ${code}: ${stderr}`)));
  });
  return { server, started, stderr: () => stderr };
}

export async function launchBrowser() {
  const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'kodrune-chromium-'));
  const browser = await puppeteer.launch({
    executablePath: chromium,
    headless: true,
    userDataDir: profile,
    args: [
      '--headless',
      '--no-sandbox',
      '--disable-gpu',
      '--disable-quic',
      '--no-first-run',
      '--disable-background-networking',
      '--disable-component-update',
      '--disable-sync',
      `--user-data-dir=${profile}`,
    ],
  });
  return { browser, profile };
}

// A raw request, so that the path and the Host header go out as written.
export function rawGet(url, target, host) {
  const { hostname, port } = new URL(url);
  return new Promise((resolve, reject) => {
    const request = http.request(
      { hostname, port, path: target, method: 'GET', setHost: false, headers: { Host: host } },
      (response) => {
        let body = '';
        response.on('data', (chunk) => (body += chunk));
        response.on('end', () => resolve({ status: response.statusCode, headers: response.headers, body }));
      },
    );
    request.on('error', reject);
    request.end();
  });
}

