// The terminal document in a real Chromium: the document that
// terminal_document_dump composes from the packaged assets, loaded as a data URL
// with no base (as the host loads it), with window.webkit.messageHandlers
// replaced by a recorder of posts. Checks the start-up order, writeBase64,
// the keyboard bridge and links.
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

// Installed before the document's own script: records every post in order and,
// for "ready", what was in place at that moment.
function recordPosts() {
  const posts = [];
  window.recordedPosts = posts;
  window.webkit = { messageHandlers: {} };
  for (const name of ['input', 'resize', 'openLink', 'ready', 'title', 'bell', 'selection',
    'pastePrimary', 'link', 'searchResults']) {
    window.webkit.messageHandlers[name] = {
      postMessage(body) {
        const post = { name, body: structuredClone(body) };
        if (name === 'ready') {
          const host = window.harborlattice ?? {};
          post.inPlace = {
            host: ['writeBase64', 'focus', 'blur', 'search'].every(
              (operation) => typeof host[operation] === 'function'),
            terminalOpen: document.querySelector('#terminal .xterm') !== null,
            outputLabel: document.querySelector('#terminal .xterm')?.getAttribute('aria-label'),
            inputLabel: document.querySelector('#terminal textarea')?.getAttribute('aria-label'),
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
const inputs = async () => (await posts()).filter((post) => post.name === 'input').map((post) => post.body);

// Hands bytes to writeBase64 and waits until the terminal has parsed them.
async function writeBytes(bytes, replace = false) {
  const value = Buffer.from(bytes).toString('base64');
  await page.evaluate(([value, replace]) => new Promise((resolve) => {
    window.harborlattice.writeBase64(value, replace);
    terminal.write('', resolve);
  }), [value, replace]);
}
const write = (text, replace = false) => writeBytes(Buffer.from(text, 'utf8'), replace);

const stacks = () => page.evaluate(() => ({
  normal: [...keyboardProtocolFlagStacks.normal],
  alternate: [...keyboardProtocolFlagStacks.alternate],
}));
const line = (row) => page.evaluate((row) => terminal.buffer.active.getLine(row).translateToString(true), row);

// The input posted for one Shift+Enter (or other chord) typed into the focused terminal.
async function typed(chord) {
  await page.evaluate(() => window.harborlattice.focus());
  await clearPosts();
  await page.keyboard.press(chord);
  return inputs();
}

describe('start-up', () => {
  test('the printable characters measured at once have the widths the renderer measures', async () => {
    const widths = await page.evaluate(() => {
      const cache = terminal._core._renderService._renderer.value._widthCache;
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

  test('"ready" is posted once, last, with the terminal and the host interface in place', async () => {
    const all = await posts();
    const readyAt = all.findIndex((post) => post.name === 'ready');
    assert.equal(all.filter((post) => post.name === 'ready').length, 1);
    assert.equal(all[readyAt].body, '');
    assert.deepEqual(all[readyAt].inPlace, {
      host: true, terminalOpen: true, outputLabel: 'Terminal output', inputLabel: 'Terminal input',
    });
    // The first fit resizes the terminal to the page before "ready".
    const before = all.slice(0, readyAt);
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
      for (let i = 0; i < 52; i += 1) {
        try {
          window.harborlattice.writeBase64(chunk, false);
        } catch (error) {
          raised.push(String(error));
        }
      }
      window.harborlattice.writeBase64(btoa('last line\r\n'), false);
      const done = () => (terminal.buffer.active.getLine(terminal.buffer.active.baseY +
        terminal.buffer.active.cursorY - 1)?.translateToString(true) === 'last line'
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
    assert.equal(await page.evaluate(() => window.harborlattice.search('needle', false)), true);
    assert.equal(await page.evaluate(() => window.harborlattice.search('needle', false)), true);
    assert.equal(await page.evaluate(() => window.harborlattice.search('needle', true)), true);
    assert.equal(await page.evaluate(() => window.harborlattice.search('absent', false)), false);
    const reported = await results();
    assert.equal(reported.length, 4);
    assert.deepEqual(reported.map((result) => result.count), [3, 3, 3, 0]);
    const [first, second, back] = reported.map((result) => result.index);
    assert.ok(first >= 0 && second === (first + 1) % 3 && back === first, JSON.stringify(reported));
    assert.equal(reported[3].index, -1);
    await page.evaluate(() => window.harborlattice.clearSearch());
    assert.equal(await page.evaluate(() => terminal.hasSelection()), false);
  });
});

describe('cursor', () => {
  test('blinks by turns of a class, with no animation, and shows whole after a redraw', async () => {
    await page.evaluate(() => window.harborlattice.focus());
    await page.waitForFunction(() => document.querySelector('.xterm-cursor.xterm-cursor-blink'));
    await page.waitForFunction(() => terminalElement.classList.contains('cursor-off'), null,
      { timeout: 3000 });
    assert.equal(await page.evaluate(() => document.getAnimations().length), 0);
    const colours = await page.evaluate(() => {
      const style = getComputedStyle(document.querySelector('.xterm-cursor'));
      return [style.backgroundColor, style.color];
    });
    assert.deepEqual(colours, ['rgba(0, 0, 0, 0)', 'rgb(126, 231, 135)']);
    await write('x');
    await page.waitForFunction(() => !terminalElement.classList.contains('cursor-off'));
    await page.waitForFunction(() => terminalElement.classList.contains('cursor-off'), null,
      { timeout: 3000 });
    await page.evaluate(() => window.harborlattice.blur());
    assert.equal(await page.evaluate(() => terminalElement.classList.contains('cursor-off')), false);
  });
});

describe('replays', () => {
  test('a replay takes the place of what was shown, the first one and every later one', async () => {
    await write('first history', true);
    assert.equal(await line(0), 'first history');
    await write(`${ESC}[31mlive output\r\nsecond line`);
    await write('second history', true);
    assert.equal(await line(0), 'second history');
    assert.equal(await line(1), '');
    await write('', true);
    assert.equal(await line(0), '');
  });

  test('queries in history are answered only when they arrive live', async () => {
    await clearPosts();
    await write(`prompt$ ${queries}top${ESC}[?1049h${queries}`, true);
    await page.waitForTimeout(300);
    assert.deepEqual(await inputs(), []);
    // The same queries in live output are answered, as a program expects.
    await write(`${ESC}[c`);
    await page.waitForFunction(() => window.recordedPosts.some((post) => post.name === 'input'));
    assert.match((await inputs()).join(''), /^\x1b\[\?[0-9;]+c$/);
  });

  test('what the user types while a long replay is written reaches the shell', async () => {
    await clearPosts();
    const line = `${'x'.repeat(70)}${ESC}[6n${ESC}[c\r\n`;
    const history = Buffer.from(line.repeat(20000), 'utf8').toString('base64');
    // Typed text arrives as an input event of the terminal's text area, here
    // while the replay is certainly still being parsed.
    const inFlight = await page.evaluate((history) => {
      window.harborlattice.writeBase64(history, true);
      const during = replayWritesInFlight;
      terminal.textarea.dispatchEvent(new InputEvent('input', { data: 'k', inputType: 'insertText' }));
      return during;
    }, history);
    await page.waitForFunction(() => replayWritesInFlight === 0, null, { timeout: 60000 });
    assert.equal(inFlight, 1);
    assert.deepEqual(await inputs(), ['k']);
  });

  test('a paste from the host while a replay is written reaches the shell', async () => {
    await clearPosts();
    const history = Buffer.from(`${queries}\r\n`.repeat(20000), 'utf8').toString('base64');
    await page.evaluate((history) => {
      window.harborlattice.writeBase64(history, true);
      window.harborlattice.paste('pasted');
    }, history);
    await page.waitForFunction(() => replayWritesInFlight === 0, null, { timeout: 60000 });
    assert.deepEqual(await inputs(), ['pasted']);
  });
});

describe('keyboard bridge stacks', () => {
  test('sixty-five pushes keep 64 entries, the base and the most recent on top; pops', async () => {
    let pushes = '';
    for (let flags = 1; flags <= 65; flags += 1) pushes += `${ESC}[>${flags}u`;
    await write(pushes);
    const expected = [0, ...Array.from({ length: 63 }, (_, i) => i + 3)];
    assert.deepEqual((await stacks()).normal, expected);

    await write(`${ESC}[<u`);
    assert.deepEqual((await stacks()).normal, expected.slice(0, -1));
    await write(`${ESC}[<2u`);
    assert.deepEqual((await stacks()).normal, expected.slice(0, -3));
    await write(`${ESC}[<100u`);
    assert.deepEqual(await stacks(), { normal: [0], alternate: [0] });
    await write(`${ESC}[<u`);
    assert.deepEqual((await stacks()).normal, [0]);
  });

  test('flags pushed in the alternate buffer stay there', async () => {
    await write(`${ESC}[?1049h${ESC}[>1u`);
    assert.deepEqual(await stacks(), { normal: [0], alternate: [0, 1] });
    assert.deepEqual(await typed('Shift+Enter'), [shiftEnter]);

    await write(`${ESC}[?1049l`);
    assert.deepEqual(await typed('Shift+Enter'), ['\r']);

    await write(`${ESC}[?1049h`);
    assert.deepEqual(await typed('Shift+Enter'), [shiftEnter]);
    assert.deepEqual(await stacks(), { normal: [0], alternate: [0, 1] });
  });

  test('a replace write and a full reset cut both stacks back to their base', async () => {
    await write(`${ESC}[>1u${ESC}[>9u${ESC}[?1049h${ESC}[>8u`);
    assert.deepEqual(await stacks(), { normal: [0, 1, 9], alternate: [0, 8] });
    await write('replayed text', true);
    assert.deepEqual(await stacks(), { normal: [0], alternate: [0] });
    assert.deepEqual(await typed('Shift+Enter'), ['\r']);

    await write(`replayed ${ESC}[>1u`, true);
    assert.deepEqual(await stacks(), { normal: [0, 1], alternate: [0] });
    assert.deepEqual(await typed('Shift+Enter'), [shiftEnter]);

    await write(`${ESC}[?1049h${ESC}[>3u${ESC}c`);
    assert.deepEqual(await stacks(), { normal: [0], alternate: [0] });
    assert.deepEqual(await typed('Shift+Enter'), ['\r']);
  });
});

describe('Shift+Enter', () => {
  // Shift down, Enter held for `repeats` auto-repeats, then both released.
  async function heldShiftEnter(repeats) {
    await page.evaluate(() => window.harborlattice.focus());
    await clearPosts();
    await page.keyboard.down('Shift');
    for (let i = 0; i <= repeats; i += 1) await page.keyboard.down('Enter');
    await page.keyboard.up('Enter');
    await page.keyboard.up('Shift');
    return inputs();
  }

  test('with flags 1: the first sequence on each press, nothing on release', async () => {
    await write(`${ESC}[>1u`);
    assert.deepEqual(await heldShiftEnter(2), [shiftEnter, shiftEnter, shiftEnter]);
  });

  test('with flags 1+2+8: press, repeats, then release', async () => {
    await write(`${ESC}[>11u`);
    assert.deepEqual(await heldShiftEnter(2),
      [shiftEnter, shiftEnterRepeat, shiftEnterRepeat, shiftEnterRelease]);
  });

  test('with flags 8 alone it is encoded, but no release without event types', async () => {
    await write(`${ESC}[>8u`);
    assert.deepEqual(await heldShiftEnter(1), [shiftEnter, shiftEnter]);
  });

  test('with flags 2 alone, and for other chords, the terminal answers as usual', async () => {
    const usualCtrlShiftEnter = await typed('Control+Shift+Enter');
    const usualAltShiftEnter = await typed('Alt+Shift+Enter');
    await write(`${ESC}[>2u`);
    assert.deepEqual(await heldShiftEnter(1), ['\r', '\r']);

    await write(`${ESC}[>11u`);
    assert.deepEqual(await typed('Enter'), ['\r']);
    assert.deepEqual(await typed('Control+Shift+Enter'), usualCtrlShiftEnter);
    assert.deepEqual(await typed('Alt+Shift+Enter'), usualAltShiftEnter);
    assert.ok(!usualCtrlShiftEnter.join('').includes('[13;'), JSON.stringify(usualCtrlShiftEnter));
  });
});

describe('terminal events', () => {
  test('titles and the bell of live output reach the host', async () => {
    await clearPosts();
    await write(`${ESC}]2;build log\x07\x07`, true);
    await write(`${ESC}]0;vim notes.txt\x07\x07`);
    const all = await posts();
    assert.deepEqual(all.filter((post) => post.name === 'title').map((post) => post.body),
      ['build log', 'vim notes.txt']);
    // The bell in the replay is not rung again; the live one is.
    assert.equal(all.filter((post) => post.name === 'bell').length, 1);
  });

  test('a middle click asks for the primary selection unless a program follows the mouse', async () => {
    const box = await page.locator('#terminal .xterm-screen').boundingBox();
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
    const before = await page.evaluate(() => terminal.cols);
    await page.evaluate(() => window.harborlattice.setFontSize(20));
    assert.ok(await page.evaluate(() => terminal.cols) < before);
    await write(`${ESC}[?2004h`);
    await clearPosts();
    await page.evaluate(() => window.harborlattice.paste('one\ntwo'));
    assert.deepEqual(await inputs(), [`${ESC}[200~one\rtwo${ESC}[201~`]);
  });
});

describe('links', () => {
  test('a clicked link is posted as "openLink" and opened nowhere', async () => {
    const url = 'https://harborlattice.test/docs?topic=links';
    await write(`see ${url} here`);
    const popups = [];
    context.on('page', (popup) => popups.push(popup.url()));
    await clearPosts();

    const box = await page.locator('#terminal .xterm-screen').boundingBox();
    const size = await page.evaluate(() => ({ cols: terminal.cols, rows: terminal.rows }));
    const cell = { width: box.width / size.cols, height: box.height / size.rows };
    const x = box.x + (4 + 10) * cell.width + cell.width / 2;
    const y = box.y + cell.height / 2;
    await page.mouse.move(x, y + 1);
    await page.mouse.move(x, y);
    await page.waitForFunction(
      () => document.querySelector('#terminal .xterm-screen').classList.contains('xterm-cursor-pointer'),
      null, { timeout: 5000 });
    await page.mouse.click(x, y);

    await page.waitForFunction(
      () => window.recordedPosts.some((post) => post.name === 'openLink'), null, { timeout: 5000 });
    assert.deepEqual((await posts()).filter((post) => post.name === 'openLink').map((post) => post.body),
      [url]);
    await page.waitForTimeout(300);
    assert.deepEqual(popups, []);
    assert.equal(page.url(), documentUrl);
  });

  test('a link a program embeds (OSC 8) is posted as "openLink", hovered and left', async () => {
    const url = 'https://harborlattice.test/embedded?x=1';
    await write(`${ESC}]8;;${url}\x07embedded link${ESC}]8;;\x07 and more`);
    await clearPosts();
    const box = await page.locator('#terminal .xterm-screen').boundingBox();
    const size = await page.evaluate(() => ({ cols: terminal.cols, rows: terminal.rows }));
    const cell = { width: box.width / size.cols, height: box.height / size.rows };
    const x = box.x + 3 * cell.width + cell.width / 2;
    const y = box.y + cell.height / 2;
    await page.mouse.move(x, y + 1);
    await page.mouse.move(x, y);
    await page.waitForFunction(() => window.recordedPosts.some((post) => post.name === 'link'));
    await page.mouse.click(x, y);
    await page.waitForFunction(
      () => window.recordedPosts.some((post) => post.name === 'openLink'), null, { timeout: 5000 });
    await page.mouse.move(box.x + 30 * cell.width, box.y + 5 * cell.height);
    await page.waitForFunction(() => window.recordedPosts.filter((post) => post.name === 'link').length >= 2);
    const all = await posts();
    assert.deepEqual(all.filter((post) => post.name === 'openLink').map((post) => post.body), [url]);
    const hovers = all.filter((post) => post.name === 'link').map((post) => post.body);
    assert.deepEqual([hovers[0], hovers.at(-1)], [url, ''], JSON.stringify(hovers));
    assert.equal(page.url(), documentUrl);
  });
});
