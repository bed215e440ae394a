// A throwaway git repository for the Node tests (the MCP session, the
// browser): files written, units of small C files, commits.
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

export class GitRepo {
  constructor(prefix) {
    this.root = fs.mkdtempSync(path.join(os.tmpdir(), prefix));
    this.git('init', '-q', '-b', 'main');
  }
  git(...args) {
    execFileSync('git', ['-c', 'user.name=t', '-c', 'user.email=t@t', ...args], { cwd: this.root });
  }
  write(file, text) {
    fs.mkdirSync(path.dirname(path.join(this.root, file)), { recursive: true });
    fs.writeFileSync(path.join(this.root, file), text);
  }
  unit(folder, names) {
    for (const name of names) this.write(`${folder}/${name}`, `int ${name[0]}() {\n  return 1;\n}\n`);
  }
  commit(message) {
    this.git('add', '-A', '.');
    this.git('commit', '-q', '--allow-empty', '-m', message);
  }
  remove() {
    fs.rmSync(this.root, { recursive: true, force: true });
  }
}
