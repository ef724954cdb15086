// The terminal document in a real Chromium: the document that
// terminal_document_dump composes from the packaged assets, loaded as a data URL
// with no base (as the host loads it), with window.webkit.messageHandlers
// replaced by a recorder of posts. Every case starts with terminal 'a' open over
// the whole page. Checks the start-up order, writeBase64, the keyboard bridge,
// links, and terminals side by side in one document.
import { after, before, beforeEach, afterEach, describe, test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { chromium } from 'playwright-core';

const chromiumPath = process.env.HARBORLATTICE_CHROMIUM ?? '/usr/bin/chromium';
const dumpPath = process.env.TERMINAL_DOCUMENT_DUMP;
const ESC = '\x1b';
const shiftEnter = `${ESC}[13;2u`;
const shiftEnterRepeat = `${ESC}[13;2:2u`;
const shiftEnterRelease = `${ESC}[13;2:3u`;

const queries = `${ESC}[c${ESC}[>c${ESC}[6n${ESC}[?6n${ESC}[5n${ESC}]11;?\x07${ESC}]10;?\x07` +
  `${ESC}[?2004$p${ESC}P$qm${ESC}\\`;

// The packaged copy only: a source checkout must not stand in for it.
function composedDocument() {
  assert.ok(dumpPath, 'TERMINAL_DOCUMENT_DUMP names the terminal_document_dump executable');
  const env = { ...process.env };
  delete env.HARBORLATTICE_ROOT;
  return execFileSync(dumpPath, { env, maxBuffer: 16 * 1024 * 1024 });
}

// Installed before the document's own script: records every post in order, a
// terminal's as { name, pane, body }, and for "loaded" and "ready" what was in
// place at that moment.
function recordPosts() {
  const posts = [];
  window.recordedPosts = posts;
  window.webkit = { messageHandlers: {} };
  const functions = (object, names) => names.every((name) => typeof object?.[name] === 'function');
  for (const name of ['loaded', 'keyboardMoved', 'input', 'resize', 'openLink', 'ready', 'title', 'bell', 'selection',
    'pastePrimary', 'link', 'searchResults']) {
    window.webkit.messageHandlers[name] = {
      postMessage(message) {
        if (name === 'keyboardMoved') {
          posts.push({ name, body: message });
          return;
        }
        if (name === 'loaded') {
          posts.push({ name, body: message, inPlace: {
            host: functions(window.harborlattice, ['open', 'place', 'close', 'terminal']),
            terminals: document.querySelectorAll('.terminal').length,
          } });
          return;
        }
        const post = { name, pane: message.pane, body: structuredClone(message.body) };
        if (name === 'ready') {
          const pane = `[data-pane="${CSS.escape(message.pane)}"]`;
          post.inPlace = {
            host: functions(window.harborlattice.terminal(message.pane),
              ['writeBase64', 'focus', 'blur', 'search', 'clearSearch', 'paste', 'selectAll', 'setFontSize']),
            terminalOpen: document.querySelector(`${pane} .xterm`) !== null,
            outputLabel: document.querySelector(`${pane} .xterm`)?.getAttribute('aria-label'),
            inputLabel: document.querySelector(`${pane} textarea`)?.getAttribute('aria-label'),
          };
        }
        posts.push(post);
      },
    };
  }
}

let browser;
let documentUrl;
let context;
let page;
let requests;
let pageErrors;
let dialogs;

before(async () => {
  documentUrl = `data:text/html;charset=utf-8;base64,${composedDocument().toString('base64')}`;
  browser = await chromium.launch({
    executablePath: chromiumPath,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
});

after(async () => {
  await browser?.close();
});

beforeEach(async () => {
  context = await browser.newContext({ viewport: { width: 800, height: 400 } });
  page = await context.newPage();
  requests = [];
  pageErrors = [];
  dialogs = [];
  page.on('dialog', async (dialog) => {
    dialogs.push(dialog.message());
    await dialog.dismiss();
  });
  page.on('request', (request) => requests.push(request.url()));
  page.on('pageerror', (error) => pageErrors.push(error.message));
  await page.addInitScript(recordPosts);
  await page.goto(documentUrl);
  await page.waitForFunction(() => window.recordedPosts.some((post) => post.name === 'loaded'));
  await page.evaluate(() => {
    // The xterm.js terminal in each container, for the cases that look inside one.
    const opened = [];
    const open = Terminal.prototype.open;
    Terminal.prototype.open = function (container) {
      opened.push([container.dataset.pane, this]);
      return open.call(this, container);
    };
    window.terminalOf = (pane) => opened.findLast(([id]) => id === pane)?.[1];
    window.harborlattice.open('a', { left: 0, top: 0, width: innerWidth, height: innerHeight });
  });
  await page.waitForFunction(() => window.recordedPosts.some((post) => post.name === 'ready'));
});

afterEach(async () => {
  await context.close();
  // Whatever its content asks for, the page never shows a dialog, loads
  // nothing and raises nothing.
  assert.deepEqual(dialogs, []);
  assert.deepEqual(requests.filter((url) => !url.startsWith('data:')), []);
  assert.deepEqual(pageErrors, []);
});

const posts = () => page.evaluate(() => window.recordedPosts);
const clearPosts = () => page.evaluate(() => { window.recordedPosts.length = 0; });
const inputs = async (pane = 'a') => (await posts())
  .filter((post) => post.name === 'input' && post.pane === pane).map((post) => post.body);

// Hands bytes to a terminal's writeBase64 and waits until the terminal has parsed them.
async function writeBytes(bytes, replace = false, pane = 'a') {
  const value = Buffer.from(bytes).toString('base64');
  await page.evaluate(([value, replace, pane]) => new Promise((resolve) => {
    window.harborlattice.terminal(pane).writeBase64(value, replace);
    terminalOf(pane).write('', resolve);
  }), [value, replace, pane]);
}
const write = (text, replace = false, pane = 'a') => writeBytes(Buffer.from(text, 'utf8'), replace, pane);

const line = (row, pane = 'a') => page.evaluate(([row, pane]) =>
  terminalOf(pane).buffer.active.getLine(row).translateToString(true), [row, pane]);

// The input posted for one Shift+Enter (or other chord) typed into the focused terminal.
async function typed(chord) {
  await page.evaluate(() => window.harborlattice.terminal('a').focus());
  await clearPosts();
  await page.keyboard.press(chord);
  return inputs();
}

describe('start-up', () => {
  test('the printable characters measured at once have the widths the renderer measures', async () => {
    const widths = await page.evaluate(() => {
      const cache = terminalOf('a')._core._renderService._renderer.value._widthCache;
      const seeded = [];
      const measured = [];
      for (let code = 32; code < 127; code += 1) {
        seeded.push(cache._flat[code]);
        measured.push(cache._measure(String.fromCharCode(code), 0));
      }
      return { seeded, measured };
    });
    assert.ok(widths.measured.every((width) => width > 0));
    assert.deepEqual(widths.seeded, widths.measured);
  });

  test('"loaded" comes first, with no terminal; an opened one posts "ready" last, in place', async () => {
    const all = await posts();
    assert.deepEqual(all[0], { name: 'loaded', body: '', inPlace: { host: true, terminals: 0 } });
    assert.equal(all.filter((post) => post.name === 'loaded').length, 1);
    const readyAt = all.findIndex((post) => post.name === 'ready');
    assert.equal(all.filter((post) => post.name === 'ready').length, 1);
    assert.deepEqual(all[readyAt], { name: 'ready', pane: 'a', body: '', inPlace: {
      host: true, terminalOpen: true, outputLabel: 'Terminal output', inputLabel: 'Terminal input',
    } });
    assert.ok(all.slice(1).every((post) => post.pane === 'a'), JSON.stringify(all));
    // The first fit resizes the terminal to its container before "ready".
    const before = all.slice(1, readyAt);
    const resize = before.find((post) => post.name === 'resize');
    assert.ok(resize, `a resize before "ready": ${JSON.stringify(before)}`);
    assert.ok(Number.isInteger(resize.body.cols) && resize.body.cols > 20, JSON.stringify(resize));
    assert.ok(Number.isInteger(resize.body.rows) && resize.body.rows > 5, JSON.stringify(resize));
    assert.ok(all.slice(readyAt + 1).every((post) => post.name === 'resize'));
  });
});

describe('writeBase64', () => {
  test('joins a UTF-8 character split across two batches', async () => {
    const euro = Buffer.from('€', 'utf8');
    const shell = Buffer.from('🐚', 'utf8');
    await writeBytes(Buffer.concat([Buffer.from('A'), euro.subarray(0, 2)]));
    await writeBytes(Buffer.concat([euro.subarray(2), Buffer.from('B'), shell.subarray(0, 1)]));
    await writeBytes(Buffer.concat([shell.subarray(1), Buffer.from('C')]));
    assert.equal(await line(0), 'A€B🐚C');
  });

  test('a flood past the terminal\'s own 50 MB limit is written whole, in order', async () => {
    const errors = await page.evaluate(() => new Promise((resolve) => {
      const chunk = btoa(`${'x'.repeat(78)}\r\n`.repeat(13000));
      const raised = [];
      const host = window.harborlattice.terminal('a');
      for (let i = 0; i < 52; i += 1) {
        try {
          host.writeBase64(chunk, false);
        } catch (error) {
          raised.push(String(error));
        }
      }
      host.writeBase64(btoa('last line\r\n'), false);
      const buffer = () => terminalOf('a').buffer.active;
      const done = () => (buffer().getLine(buffer().baseY + buffer().cursorY - 1)
        ?.translateToString(true) === 'last line'
        ? resolve(raised) : setTimeout(done, 50));
      done();
    }));
    assert.deepEqual(errors, []);
  });

  test('search steps through the matches and reports their count', async () => {
    await write('alpha needle beta\r\n\u{1F41A}\u{1F41A} Needle two\r\nthird needle');
    const results = async () => (await posts()).filter((post) => post.name === 'searchResults')
      .map((post) => post.body);
    await clearPosts();
    const search = (value, backwards) => page.evaluate(([value, backwards]) =>
      window.harborlattice.terminal('a').search(value, backwards), [value, backwards]);
    assert.equal(await search('needle', false), true);
    assert.equal(await search('needle', false), true);
    assert.equal(await search('needle', true), true);
    assert.equal(await search('absent', false), false);
    const reported = await results();
    assert.equal(reported.length, 4);
    assert.deepEqual(reported.map((result) => result.count), [3, 3, 3, 0]);
    const [first, second, back] = reported.map((result) => result.index);
    assert.ok(first >= 0 && second === (first + 1) % 3 && back === first, JSON.stringify(reported));
    assert.equal(reported[3].index, -1);
    await page.evaluate(() => window.harborlattice.terminal('a').clearSearch());
    assert.equal(await page.evaluate(() => terminalOf('a').hasSelection()), false);
  });
});

describe('replays', () => {
  test('a replay takes the place of what was shown, every time; its title counts, its bell not', async () => {
    await clearPosts();
    await write(`first history${ESC}]2;build log\x07\x07`, true);
    assert.equal(await line(0), 'first history');
    await write(`${ESC}[31mlive output\r\nsecond line${ESC}]0;vim notes.txt\x07\x07`);
    await write('second history', true);
    assert.equal(await line(0), 'second history');
    assert.equal(await line(1), '');
    await write('', true);
    assert.equal(await line(0), '');
    const all = await posts();
    assert.deepEqual(all.filter((post) => post.name === 'title').map((post) => post.body),
      ['build log', 'vim notes.txt']);
    assert.equal(all.filter((post) => post.name === 'bell').length, 1);
  });

  test('what the user types or pastes while a replay is parsed reaches the shell', async () => {
    await clearPosts();
    const history = Buffer.from(`${'x'.repeat(70)}${queries}\r\n`.repeat(20000), 'utf8').toString('base64');
    // Typed text arrives as an input event of the terminal's text area, here
    // before the terminal has parsed any of the replay.
    const parsedBefore = await page.evaluate((history) => {
      const terminal = terminalOf('a');
      window.harborlattice.terminal('a').writeBase64(history, true);
      const parsed = terminal.buffer.active.getLine(0).translateToString(true);
      terminal.textarea.dispatchEvent(new InputEvent('input', { data: 'k', inputType: 'insertText' }));
      window.harborlattice.terminal('a').paste('pasted');
      return new Promise((resolve) => terminal.write('', () => resolve(parsed)));
    }, history);
    assert.equal(parsedBefore, '');
    assert.deepEqual(await inputs(), ['k', 'pasted']);
  });
});

describe('keyboard bridge', () => {
  const push = (flags) => `${ESC}[>${flags}u`;
  const pop = (count) => `${ESC}[<${count}u`;
  // Shift down, Enter held for `repeats` auto-repeats, then both released.
  async function heldShiftEnter(repeats) {
    await page.evaluate(() => window.harborlattice.terminal('a').focus());
    await clearPosts();
    await page.keyboard.down('Shift');
    for (let i = 0; i <= repeats; i += 1) await page.keyboard.down('Enter');
    await page.keyboard.up('Enter');
    await page.keyboard.up('Shift');
    return inputs();
  }

  test('a stack holds 64 entries with its base, then drops the oldest above it', async () => {
    // 1 under 62 × 2: the 64 entries are all kept.
    await write(push(1) + push(2).repeat(62) + pop(62));
    assert.deepEqual(await typed('Shift+Enter'), [shiftEnter]);
    // 1 under 63 × 2: the 1 is gone.
    await write(push(2).repeat(63) + pop(63));
    assert.deepEqual(await typed('Shift+Enter'), ['\r']);
    // On a full stack the flags pushed last are on top.
    await write(push(2).repeat(63) + push(1));
    assert.deepEqual(await typed('Shift+Enter'), [shiftEnter]);
  });

  test('each buffer keeps its own stack; a replace write and a full reset cut both to their base', async () => {
    await write(`${ESC}[?1049h${ESC}[>1u`);
    assert.deepEqual(await typed('Shift+Enter'), [shiftEnter]);
    await write(`${ESC}[?1049l`);
    assert.deepEqual(await typed('Shift+Enter'), ['\r']);
    await write(`${ESC}[?1049h`);
    assert.deepEqual(await typed('Shift+Enter'), [shiftEnter]);
    await write(`${ESC}[?1049l${ESC}[>9u`);
    await write('replayed text', true);
    assert.deepEqual(await typed('Shift+Enter'), ['\r']);
    await write(`${ESC}[?1049h`);
    assert.deepEqual(await typed('Shift+Enter'), ['\r']);
    await write(`replayed ${ESC}[>1u`, true);
    assert.deepEqual(await typed('Shift+Enter'), [shiftEnter]);
    await write(`${ESC}[>1u${ESC}[?1049h${ESC}[>3u${ESC}c`);
    assert.deepEqual(await typed('Shift+Enter'), ['\r']);
    await write(`${ESC}[?1049h`);
    assert.deepEqual(await typed('Shift+Enter'), ['\r']);
  });

  test('Shift+Enter: each set of flags answers in its own way, other chords as usual', async () => {
    const usualCtrlShiftEnter = await typed('Control+Shift+Enter');
    const usualAltShiftEnter = await typed('Alt+Shift+Enter');
    assert.ok(!usualCtrlShiftEnter.join('').includes('[13;'), JSON.stringify(usualCtrlShiftEnter));
    await write(`${ESC}[>2u`);
    assert.deepEqual(await heldShiftEnter(1), ['\r', '\r']);
    // 1, or 8 alone: the first sequence on each press, nothing on release.
    for (const flags of [1, 8]) {
      await write(`${ESC}[>${flags}u`);
      assert.deepEqual(await heldShiftEnter(2), [shiftEnter, shiftEnter, shiftEnter]);
    }
    await write(`${ESC}[>11u`);
    assert.deepEqual(await heldShiftEnter(2),
      [shiftEnter, shiftEnterRepeat, shiftEnterRepeat, shiftEnterRelease]);
    assert.deepEqual(await typed('Enter'), ['\r']);
    assert.deepEqual(await typed('Control+Shift+Enter'), usualCtrlShiftEnter);
    assert.deepEqual(await typed('Alt+Shift+Enter'), usualAltShiftEnter);
  });
});

describe('terminal events', () => {
  test('the cursor blinks by turns of a class, with no animation, and shows whole after a redraw', async () => {
    const cursorOff = () => document.querySelector('[data-pane="a"]').classList.contains('cursor-off');
    await page.evaluate(() => window.harborlattice.terminal('a').focus());
    await page.waitForFunction(() => document.querySelector('.xterm-cursor.xterm-cursor-blink'));
    await page.waitForFunction(cursorOff, null, { timeout: 3000 });
    assert.equal(await page.evaluate(() => document.getAnimations().length), 0);
    const colours = await page.evaluate(() => {
      const style = getComputedStyle(document.querySelector('.xterm-cursor'));
      return [style.backgroundColor, style.color];
    });
    assert.deepEqual(colours, ['rgba(0, 0, 0, 0)', 'rgb(126, 231, 135)']);
    await write('x');
    await page.waitForFunction(() => !document.querySelector('[data-pane="a"]').classList.contains('cursor-off'));
    await page.waitForFunction(cursorOff, null, { timeout: 3000 });
    await page.evaluate(() => window.harborlattice.terminal('a').blur());
    assert.equal(await page.evaluate(cursorOff), false);
  });

  test('a bell flashes the terminal for a moment; a replayed one does not', async () => {
    const flashes = () => page.evaluate(() => new Promise((resolve) => {
      const container = document.querySelector('[data-pane="a"]');
      let seen = false;
      const observer = new MutationObserver(() => { seen ||= container.classList.contains('bell-flash'); });
      observer.observe(container, { attributes: true });
      window.harborlattice.terminal('a').writeBase64(btoa('\x07'), false);
      setTimeout(() => { observer.disconnect(); resolve([seen, container.classList.contains('bell-flash')]); }, 400);
    }));
    assert.deepEqual(await flashes(), [true, false]);
    await write('\x07', true);
    await page.waitForTimeout(50);
    assert.equal(await page.evaluate(() => document.querySelector('[data-pane="a"]').classList.contains('bell-flash')), false);
  });

  test('a middle click asks for the primary selection unless a program follows the mouse', async () => {
    const box = await page.locator('.terminal .xterm-screen').boundingBox();
    const middleClick = () => page.mouse.click(box.x + 40, box.y + 10, { button: 'middle' });
    await clearPosts();
    await middleClick();
    await page.waitForFunction(() => window.recordedPosts.some((post) => post.name === 'pastePrimary'));
    await write(`${ESC}[?1000h${ESC}[?1006h`);
    await clearPosts();
    await middleClick();
    await page.waitForFunction(() => window.recordedPosts.some((post) => post.name === 'input'));
    const all = await posts();
    assert.equal(all.filter((post) => post.name === 'pastePrimary').length, 0);
    assert.match(all.find((post) => post.name === 'input').body, /^\x1b\[<1;/);
  });

  test('font size changes refit the terminal; pasted text is bracketed when asked', async () => {
    const before = await page.evaluate(() => terminalOf('a').cols);
    await page.evaluate(() => window.harborlattice.terminal('a').setFontSize(20));
    assert.ok(await page.evaluate(() => terminalOf('a').cols) < before);
    await write(`${ESC}[?2004h`);
    await clearPosts();
    await page.evaluate(() => window.harborlattice.terminal('a').paste('one\ntwo'));
    assert.deepEqual(await inputs(), [`${ESC}[200~one\rtwo${ESC}[201~`]);
  });
});

describe('sizes', () => {
  test('the shell learns a size once it has stopped changing, and the screen is painted whole', async () => {
    await clearPosts();
    const started = Date.now();
    for (let step = 0; step < 15; step += 1) {
      await page.evaluate((width) => window.harborlattice.place('a', { left: 0, top: 0, width, height: 400 }),
        400 + step * 20);
      await page.waitForTimeout(40);
    }
    const during = (await posts()).filter((post) => post.name === 'resize');
    assert.deepEqual(during, [], 'nothing while the size changes');
    await page.waitForFunction(() => window.recordedPosts.some((post) => post.name === 'resize'));
    await page.waitForTimeout(300);
    const cols = await page.evaluate(() => terminalOf('a').cols);
    assert.deepEqual((await posts()).filter((post) => post.name === 'resize').map((post) => post.body),
      [{ cols, rows: await page.evaluate(() => terminalOf('a').rows) }]);
    assert.ok(Date.now() - started > 15 * 40);
  });
});

describe('widths', () => {
  test('every character takes as many cells as the C library\'s wcwidth says', async () => {
    const codes = [0x1F680, 0x1F600, 0x1F44D, 0x1F9D1, 0x231A, 0x2764, 0x4E2D, 0xAC00, 0x3000,
      0xFF71, 0xE9, 0x301, 0x200B, 0x1F1EF];
    const wcwidth = JSON.parse(execFileSync('python3', ['-c', `
import ctypes, json, locale
locale.setlocale(locale.LC_ALL, 'C.UTF-8')
libc = ctypes.CDLL('libc.so.6')
print(json.dumps([libc.wcwidth(code) for code in ${JSON.stringify(codes)}]))`]).toString());
    const cells = [];
    for (const code of codes) {
      await write(`\r${ESC}[Ka${String.fromCodePoint(code)}`);
      cells.push(await page.evaluate(() => terminalOf('a').buffer.active.cursorX - 1));
    }
    assert.deepEqual(cells.map((width, index) => [codes[index].toString(16), width]),
      wcwidth.map((width, index) => [codes[index].toString(16), width]));
    // Three rockets and a bar: the bar in the seventh cell, where the shell puts it.
    await write(`\r${ESC}[K\u{1F680}\u{1F680}\u{1F680}|`);
    assert.equal(await page.evaluate(() => terminalOf('a').buffer.active.getLine(
      terminalOf('a').buffer.active.cursorY + terminalOf('a').buffer.active.baseY).getCell(6).getChars()), '|');
  });
});

describe('links', () => {
  // The middle of a cell of terminal 'a', in page coordinates.
  async function cellCentre(column, row) {
    const box = await page.locator('.terminal .xterm-screen').boundingBox();
    const size = await page.evaluate(() => ({ cols: terminalOf('a').cols, rows: terminalOf('a').rows }));
    const cell = { width: box.width / size.cols, height: box.height / size.rows };
    return { x: box.x + (column + 0.5) * cell.width, y: box.y + (row + 0.5) * cell.height };
  }

  test('a link opens on Ctrl+click or a still plain click, never on a drag, double click or other button', async () => {
    const url = 'https://harborlattice.test/rules';
    await write(`go ${url} now`);
    await clearPosts();
    const opened = async () => (await posts()).filter((post) => post.name === 'openLink').map((post) => post.body);
    const start = await cellCentre(3 + 12, 0);
    const hover = async () => {
      await page.mouse.move(start.x, start.y + 1);
      await page.mouse.move(start.x, start.y);
      await page.waitForFunction(() => window.recordedPosts.findLast((post) => post.name === 'link')?.body !== '');
    };
    // A drag that selects part of the link, a double click, a right click.
    await hover();
    const end = await cellCentre(3 + 20, 0);
    await page.mouse.down();
    await page.mouse.move(end.x, end.y, { steps: 5 });
    await page.mouse.up();
    assert.ok(await page.evaluate(() => terminalOf('a').hasSelection()), 'the drag selected');
    await hover();
    await page.mouse.dblclick(start.x, start.y);
    await hover();
    await page.mouse.click(start.x, start.y, { button: 'right' });
    await page.waitForTimeout(700);
    assert.deepEqual(await opened(), []);
    // Ctrl+click opens at once; a plain click once no second click followed.
    await page.evaluate(() => terminalOf('a').clearSelection());
    await hover();
    await page.keyboard.down('Control');
    await page.mouse.click(start.x, start.y);
    await page.keyboard.up('Control');
    assert.deepEqual(await opened(), [url]);
    await hover();
    await page.mouse.click(start.x, start.y);
    await page.waitForFunction((count) => window.recordedPosts.filter((post) => post.name === 'openLink').length > count, 1);
    assert.deepEqual(await opened(), [url, url]);
  });

  test('a plain link and one a program embeds (OSC 8) are hovered, posted as "openLink" and opened nowhere', async () => {
    const plain = 'https://harborlattice.test/docs?topic=links';
    const embedded = 'https://harborlattice.test/embedded?x=1';
    await write(`see ${plain} here\r\n${ESC}]8;;${embedded}\x07embedded link${ESC}]8;;\x07 and more`);
    const popups = [];
    context.on('page', (popup) => popups.push(popup.url()));
    await clearPosts();
    const posted = ([name, body]) => window.recordedPosts.some((post) => post.name === name && post.body === body);
    for (const [column, row, url] of [[4 + 10, 0, plain], [3, 1, embedded]]) {
      const { x, y } = await cellCentre(column, row);
      await page.mouse.move(x, y + 1);
      await page.mouse.move(x, y);
      await page.waitForFunction(posted, ['link', url], { timeout: 5000 });
      await page.mouse.click(x, y);
      await page.waitForFunction(posted, ['openLink', url], { timeout: 5000 });
    }
    const away = await cellCentre(30, 5);
    await page.mouse.move(away.x, away.y);
    await page.waitForFunction(() => window.recordedPosts.findLast((post) => post.name === 'link').body === '');
    const all = await posts();
    assert.deepEqual(all.filter((post) => post.name === 'openLink').map((post) => post.body), [plain, embedded]);
    assert.deepEqual(all.filter((post) => post.name === 'link').map((post) => post.body),
      [plain, '', embedded, '']);
    await page.waitForTimeout(300);
    assert.deepEqual(popups, []);
    assert.equal(page.url(), documentUrl);
  });
});

describe('terminals side by side', () => {
  test('share nothing, post with their own id, follow their rectangles and close', async () => {
    const resizes = async (pane) => (await posts())
      .filter((post) => post.name === 'resize' && post.pane === pane).map((post) => post.body.cols);
    const colsBefore = await page.evaluate(() => terminalOf('a').cols);
    await clearPosts();
    // 'b' opens with no width: it keeps the terminal's own size until it has one.
    await page.evaluate(() => {
      window.harborlattice.open('b', { left: 400, top: 0, width: 0, height: 400 });
      window.harborlattice.open('b', { left: 0, top: 0, width: 800, height: 400 });
    });
    await page.evaluate(() => new Promise((resolve) => requestAnimationFrame(() => setTimeout(resolve, 50))));
    assert.equal(await page.evaluate(() => document.querySelectorAll('[data-pane="b"]').length), 1);
    assert.deepEqual(await resizes('b'), []);
    await page.evaluate(() => {
      window.harborlattice.place('a', { left: 0, top: 0, width: 400, height: 400 });
      window.harborlattice.place('b', { left: 400, top: 100, width: 400, height: 300 });
    });
    await page.waitForFunction(() => ['a', 'b'].every((pane) =>
      window.recordedPosts.some((post) => post.name === 'resize' && post.pane === pane)));
    const colsA = await page.evaluate(() => terminalOf('a').cols);
    assert.ok(colsA > 10 && colsA < colsBefore, `${colsA} against ${colsBefore}`);
    assert.deepEqual([await resizes('a'), await resizes('b')], [[colsA], [colsA]]);
    const boxB = await page.locator('[data-pane="b"] .xterm-screen').boundingBox();
    assert.deepEqual([boxB.x, boxB.y], [400, 100]);

    // A move of the keyboard waits until the page has seen the key events
    // sent before it (a press and a release each), or half a second at most.
    await clearPosts();
    await page.evaluate(() => {
      window.harborlattice.moveKeyboard(1, 0, 'b', 'focus');
      window.harborlattice.moveKeyboard(2, 4, 'a', 'focus');
    });
    await page.keyboard.type('xy');
    await page.keyboard.type('z');
    await page.evaluate(() => window.harborlattice.moveKeyboard(3, 100, 'b', 'focus'));
    await page.keyboard.type('v');
    await page.waitForTimeout(700);
    await page.keyboard.type('w');
    assert.deepEqual((await posts()).filter((post) => ['input', 'keyboardMoved'].includes(post.name))
      .map((post) => [post.pane ?? 'moved', post.body]),
    [['moved', 1], ['b', 'x'], ['b', 'y'], ['moved', 2], ['a', 'z'], ['a', 'v'], ['moved', 3], ['b', 'w']]);

    // Output after a keystroke is parsed at once, later output in a task of its own.
    await write('only in a');
    await write('only in b', false, 'b');
    assert.deepEqual([await line(0), await line(0, 'b')], ['only in a', 'only in b']);
    // A replay into 'b' is answered by neither terminal, on either screen, and
    // live output that 'a' parses while the replay waits is answered as usual.
    await clearPosts();
    const history = Buffer.from(`${`prompt$ ${queries}\r\n`.repeat(100)}${ESC}[?1049h${queries}`,
      'utf8').toString('base64');
    await page.evaluate((history) => new Promise((resolve) => {
      window.harborlattice.terminal('a').writeBase64(btoa('\x1b[c'), false);
      window.harborlattice.terminal('b').writeBase64(history, true);
      terminalOf('b').write('', resolve);
    }), history);
    await page.waitForTimeout(200);
    const answers = (await posts()).filter((post) => post.name === 'input');
    assert.deepEqual(answers.map((post) => post.pane), ['a'], JSON.stringify(answers));
    assert.match(answers[0].body, /^\x1b\[\?[0-9;]+c$/);

    // A closed terminal is gone; what the host kept of it does nothing.
    await clearPosts();
    const after = await page.evaluate(() => new Promise((resolve) => {
      const kept = window.harborlattice.terminal('b');
      kept.writeBase64(btoa('\x1b[c\x1b]2;late\x07\x07'), false);
      window.harborlattice.close('b');
      window.harborlattice.close('b');
      window.harborlattice.place('b', { left: 0, top: 0, width: 100, height: 100 });
      kept.writeBase64(btoa('\x1b[c'), false);
      kept.paste('late');
      kept.search('late', false);
      kept.setFontSize(30);
      setTimeout(() => resolve({
        containers: document.querySelectorAll('[data-pane="b"]').length,
        interface: typeof window.harborlattice.terminal('b'),
      }), 200);
    }));
    assert.deepEqual(after, { containers: 0, interface: 'undefined' });
    assert.deepEqual(await posts(), []);
    await write(`${ESC}[c`);
    await page.waitForFunction(() => window.recordedPosts.some((post) => post.name === 'input' && post.pane === 'a'));
  });
});
