// Several terminals in one document against one document per terminal, in
// Chromium: what a page of its own costs each terminal, measured outside the
// application. Not a test: run it by hand after a build.
//
//   node bench/app/documents.mjs [runs]
//
// "one document each": N frames of one page, each page the terminal document
// the application composes (its own script included), all in one renderer
// process. "one document": one page that opens N terminals with the same
// options and addons. Both write a prompt into every terminal and are timed
// from the navigation to the last prompt on screen. Needs /usr/bin/chromium
// (or $HARBORLATTICE_CHROMIUM), web/node_modules and
// target/release/terminal_document_dump (or $TERMINAL_DOCUMENT_DUMP).
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '../..');
const { chromium } = await import(path.join(root, 'web/node_modules/playwright-core/index.mjs'));
const runs = Number(process.argv[2] ?? 5);
const dump = process.env.TERMINAL_DOCUMENT_DUMP ?? path.join(root, 'target/release/terminal_document_dump');
const composed = execFileSync(dump, { encoding: 'utf8', maxBuffer: 1 << 24 });
const ownScript = composed.slice(composed.lastIndexOf('<script>') + 8, composed.lastIndexOf('</script>'));
const modules = path.join(root, 'web/node_modules/@xterm');
const css = fs.readFileSync(path.join(modules, 'xterm/css/xterm.css'), 'utf8');
const scripts = ['xterm/lib/xterm.js', 'addon-fit/lib/addon-fit.js', 'addon-web-links/lib/addon-web-links.js',
  'addon-search/lib/addon-search.js'].map(name => `<script src="file://${path.join(modules, name)}"></script>`).join('');
// The application's message handlers, dropping every post.
const handlers = `<script>window.webkit = { messageHandlers: {} };
for (const name of ['input', 'resize', 'openLink', 'ready', 'title', 'bell', 'selection', 'pastePrimary', 'link', 'searchResults'])
  window.webkit.messageHandlers[name] = { postMessage() {} };</script>`;
const prompt = `'user@host:~/project$ '`;
const grid = count => {
  const columns = Math.ceil(Math.sqrt(count));
  return `display:grid;grid-template-columns:repeat(${columns},1fr);` +
    `grid-template-rows:repeat(${Math.ceil(count / columns)},1fr);width:1360px;height:820px`;
};

const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'hl-documents-'));
const write = (name, text) => { fs.writeFileSync(path.join(folder, name), text); return path.join(folder, name); };
write('terminal.html', `<!doctype html><html><head><meta charset="utf-8"><style>${css}
html,body,#terminal{width:100%;height:100%;margin:0;overflow:hidden;background:#10131a}</style>${handlers}</head>
<body><div id="terminal"></div>${scripts}<script>${ownScript}</script><script>terminal.write(${prompt});</script></body></html>`);
const pages = {};
for (const count of [1, 20]) {
  pages[`each${count}`] = write(`each${count}.html`, `<!doctype html><html><body style="margin:0"><div style="${grid(count)}">` +
    '<iframe style="border:0;width:100%;height:100%" src="terminal.html"></iframe>'.repeat(count) + '</div></body></html>');
  pages[`one${count}`] = write(`one${count}.html`, `<!doctype html><html><head><meta charset="utf-8"><style>${css}
html,body{margin:0;background:#10131a} .pane{width:100%;height:100%;overflow:hidden}</style></head>
<body><div style="${grid(count)}">${'<div class="pane"></div>'.repeat(count)}</div>${scripts}<script>
for (const pane of document.querySelectorAll('.pane')) {
  const terminal = new Terminal({ cursorBlink: true, scrollback: 10000, fontSize: 13,
    fontFamily: "SFMono-Regular, Menlo, 'DejaVu Sans Mono', monospace, 'Noto Color Emoji'" });
  const fit = new FitAddon.FitAddon();
  terminal.loadAddon(fit);
  terminal.loadAddon(new SearchAddon.SearchAddon());
  terminal.loadAddon(new WebLinksAddon.WebLinksAddon(() => {}));
  terminal.open(pane);
  fit.fit();
  new ResizeObserver(() => fit.fit()).observe(pane);
  terminal.write(${prompt});
}</script></body></html>`);
}

const everyPrompt = count => `(() => {
  const documents = [document, ...[...document.querySelectorAll('iframe')].map(frame => frame.contentDocument)];
  const rows = documents.flatMap(each => each ? [...each.querySelectorAll('.xterm-rows')] : []);
  return rows.length === ${count} && rows.every(row => /\\$\\s*$/m.test(row.textContent));
})()`;
const browser = await chromium.launch({
  executablePath: process.env.HARBORLATTICE_CHROMIUM ?? '/usr/bin/chromium',
  args: ['--no-sandbox', '--allow-file-access-from-files'],
});
const times = {};
for (let run = 0; run < runs; run += 1) {
  for (const [name, file] of Object.entries(pages)) {
    const page = await browser.newPage({ viewport: { width: 1360, height: 820 } });
    const started = performance.now();
    await page.goto(`file://${file}`);
    await page.waitForFunction(everyPrompt(Number(name.replace(/\D/g, ''))), null, { polling: 10 });
    (times[name] ??= []).push(performance.now() - started);
    await page.close();
  }
}
await browser.close();
fs.rmSync(folder, { recursive: true, force: true });

const median = values => values.slice().sort((a, b) => a - b)[values.length >> 1];
const row = (label, measured, reference) => console.log(
  `${label.padEnd(52)} ${measured.toFixed(0).padStart(8)} ${reference.toFixed(0).padStart(8)} ${(measured / reference).toFixed(2).padStart(7)}  ms`);
console.log(`documents: median of ${runs} runs\n${'measure'.padEnd(52)} ${'measured'.padStart(8)} ${'reference'.padStart(8)}   ratio`);
const m = Object.fromEntries(Object.entries(times).map(([name, values]) => [name, median(values)]));
row('20 terminals against 1, one document each', m.each20, m.each1);
row('20 terminals against 1, one document', m.one20, m.one1);
row('20 terminals: one document (one document each)', m.one20, m.each20);
row('each terminal after the first: one document (each)', (m.one20 - m.one1) / 19, (m.each20 - m.each1) / 19);
