// Composition of the terminal document and the text of its own script.
#include "XtermView.h"

namespace hl {

namespace {

constexpr std::string_view documentHead =
    "<!doctype html><html><head><meta charset=\"utf-8\"><style>\n";

// The body starts empty: every terminal gets a container of its own, placed by
// the host. (xterm.js gives its own element the class "terminal" as well.)
constexpr std::string_view pageStyle =
    "\nhtml,body{width:100%;height:100%;margin:0;overflow:hidden;background:#10131a}"
    "\nbody>.terminal{position:absolute;overflow:hidden;background:#10131a}"
    "\n</style></head><body>\n<script>";

constexpr std::string_view nextScript = "</script><script>";

constexpr std::string_view ownScriptStart = "</script>\n<script>\n";

constexpr std::string_view documentTail = "</script></body></html>";

// What runs once for the whole document, up to the theme that every terminal shares.
constexpr std::string_view documentStart = R"js((() => {
window.alert = () => {};
window.confirm = () => false;
window.prompt = () => null;
const defaultFontFamily =
  "SFMono-Regular, Menlo, 'DejaVu Sans Mono', monospace, 'Noto Color Emoji'";
const terminalTheme = )js";

constexpr std::string_view documentWide = R"js(;
// What the user chose for every terminal (setOptions); null options keep the
// terminals as created.
const look = { bell: 'visible', blink: true, options: null };
// A cursor blinks by a class on its terminal's container, set and cleared every
// half second while that terminal has the keyboard, and shown whole after every
// redraw. xterm.js's own blink is an animation that redraws the page at the
// display's full rate for as long as the terminal has the keyboard.
const blinkStyle = document.createElement('style');
blinkStyle.textContent = `.terminal .xterm-cursor.xterm-cursor-blink { animation: none !important; }
.terminal.cursor-off .xterm-cursor.xterm-cursor-blink.xterm-cursor-block {
  background-color: inherit !important; color: ${terminalTheme.cursor} !important; }
.terminal.cursor-off .xterm-cursor.xterm-cursor-blink.xterm-cursor-bar { box-shadow: none !important; }
.terminal.cursor-off .xterm-cursor.xterm-cursor-blink.xterm-cursor-underline {
  border-bottom-style: hidden !important; }
.terminal.bell-flash::after { content: ''; position: absolute; inset: 0; pointer-events: none;
  background: rgba(255, 149, 0, 0.22); }`;
document.head.appendChild(blinkStyle);
// One terminal in its container, posting to the host through `host`. Nothing
// in it is shared with another terminal. Returns its interface for the host,
// its fit and its close.
function startTerminal(container, host) {
)js";

constexpr std::string_view terminalCreation = R"js(const terminal = new Terminal({
  cursorBlink: true,
  allowProposedApi: false,
  scrollback: 10000,
  fontFamily: defaultFontFamily,
  fontSize: 13,
  macOptionIsMeta: )js";

constexpr std::string_view addonsAndMessages = R"js(
// Set once the host has closed the terminal.
let closed = false;
// Output written as history or a replay is shown, never answered: the answers
// to the queries in it (device attributes, cursor position, colours) would
// reach the shell as keystrokes. What the user does meanwhile still counts.
let replayWritesInFlight = 0;
let hostIsPasting = false;
let compositionEndedAt = -Infinity;
function isUserAct() {
  return hostIsPasting || window.event !== undefined ||
    performance.now() - compositionEndedAt < 100;
}
let hoveredLink = '';
function hoverLink(uri) {
  if (hoveredLink === uri) return;
  hoveredLink = uri;
  host.link.postMessage(uri);
}
const linkCallbacks = {
  hover: (event, uri) => hoverLink(uri),
  leave: () => hoverLink(''),
};
// A link opens on Ctrl+click, or on a plain click of the primary button that
// did not move and left nothing selected; never at the end of a drag, on a
// double click or with another button. A plain click waits out the time of a
// double click, which cancels it.
const doubleClickInterval = 400;
const clickSlop = 4;
let press = null;
let plainClickTimer = 0;
function cancelPlainClick() {
  clearTimeout(plainClickTimer);
  plainClickTimer = 0;
}
function activateLink(event, uri) {
  const click = press;
  if (!click || click.button !== 0 || event.button !== 0 || click.moved) return;
  if (click.detail > 1 || event.detail > 1) return;
  if (event.ctrlKey && !event.altKey && !event.metaKey) {
    host.openLink.postMessage(uri);
    return;
  }
  if (event.ctrlKey || event.altKey || event.metaKey || event.shiftKey) return;
  if (terminal.hasSelection()) return;
  cancelPlainClick();
  clearTimeout(resizeTimer);
  clearTimeout(bellTimer);
  plainClickTimer = setTimeout(() => {
    plainClickTimer = 0;
    if (!closed && !terminal.hasSelection()) host.openLink.postMessage(uri);
  }, doubleClickInterval);
}
const fitAddon = new FitAddon.FitAddon();
const searchAddon = new SearchAddon.SearchAddon();
terminal.loadAddon(fitAddon);
terminal.loadAddon(searchAddon);
// Characters are as wide as the C library's wcwidth says (emoji and other wide
// characters take two cells), so the shell and the screen agree.
// The terminal offers its width tables only as a proposed interface: it is
// opened for this and closed again.
terminal.options.allowProposedApi = true;
try {
  terminal.loadAddon(new Unicode11Addon.Unicode11Addon());
  terminal.unicode.activeVersion = '11';
} finally {
  terminal.options.allowProposedApi = false;
}
terminal.loadAddon(new WebLinksAddon.WebLinksAddon(activateLink, linkCallbacks));
// Links a program embeds in its output (OSC 8) leave the same way as plain ones.
terminal.options.linkHandler = { activate: activateLink, ...linkCallbacks };
terminal.open(container);
terminal.element?.addEventListener('mousedown', event => {
  cancelPlainClick();
  press = { x: event.clientX, y: event.clientY, button: event.button, detail: event.detail,
    moved: false };
}, true);
terminal.element?.addEventListener('mousemove', event => {
  if (press && !press.moved && (Math.abs(event.clientX - press.x) > clickSlop ||
                                Math.abs(event.clientY - press.y) > clickSlop)) {
    press.moved = true;
  }
}, true);
// The renderer measures a character's width the first time it draws it, one
// layout of the whole page per character. Printable ASCII is measured here at
// once, in one layout, with the renderer's own measuring element, and handed
// to its cache; a renderer without that cache measures as before.
function measureAsciiWidths() {
  const renderer = terminal._core?._renderService?._renderer?.value;
  const cache = renderer?._widthCache;
  const measuring = cache?._measureElements?.[0];
  if (!(cache?._flat instanceof Float32Array) || !measuring?.parentNode) return;
  const spans = [];
  for (let code = 32; code < 127; code += 1) {
    if (cache._flat[code] !== -9999) continue;
    const span = measuring.cloneNode(false);
    span.textContent = String.fromCharCode(code).repeat(32);
    measuring.parentNode.appendChild(span);
    spans.push([code, span]);
  }
  for (const [code, span] of spans) {
    const width = span.offsetWidth / 32;
    if (width > 0) cache._flat[code] = width;
  }
  for (const [, span] of spans) span.remove();
}
measureAsciiWidths();
if (terminal.element) terminal.element.setAttribute('aria-label', 'Terminal output');
if (terminal.textarea) terminal.textarea.setAttribute('aria-label', 'Terminal input');
let cursorShownAt = 0;
let blinkTimer = 0;
function showCursor(off = false) {
  if (container.classList.contains('cursor-off') !== off)
    container.classList.toggle('cursor-off', off);
}
terminal.onRender(() => {
  cursorShownAt = performance.now();
  showCursor();
});
terminal.textarea?.addEventListener('focus', () => {
  cursorShownAt = performance.now();
  clearInterval(blinkTimer);
  // While another window has the keyboard the cursor does not blink, and the
  // page is left alone.
  blinkTimer = setInterval(() => {
    showCursor(look.blink && document.hasFocus() &&
               Math.floor((performance.now() - cursorShownAt) / 500) % 2 === 1);
  }, 100);
});
terminal.textarea?.addEventListener('blur', () => {
  clearInterval(blinkTimer);
  showCursor();
});
// After the terminal's own handlers: a move of the keyboard may wait for this key.
terminal.textarea?.addEventListener('keydown', keyWasHandled);
terminal.textarea?.addEventListener('keypress', keyWasHandled);
terminal.textarea?.addEventListener('keyup', keyWasHandled);
terminal.textarea?.addEventListener('compositionend', () => {
  compositionEndedAt = performance.now();
}, true);
terminal.onData(data => {
  if (replayWritesInFlight > 0 && !isUserAct()) return;
  host.input.postMessage(data);
});
// The shell learns the first size at once and later ones when the size has
// stopped changing for a moment: a program that redraws on every change would
// draw over itself while a divider or the window is dragged. The screen is
// then painted whole.
const resizeQuietPeriod = 150;
let sizeWasPosted = false;
let resizeTimer = 0;
function postSize() {
  resizeTimer = 0;
  if (closed) return;
  sizeWasPosted = true;
  host.resize.postMessage({ cols: terminal.cols, rows: terminal.rows });
  terminal.refresh(0, terminal.rows - 1);
}
terminal.onResize(() => {
  clearTimeout(resizeTimer);
  if (!sizeWasPosted) {
    postSize();
  } else {
    resizeTimer = setTimeout(postSize, resizeQuietPeriod);
  }
});
terminal.onTitleChange(title => host.title.postMessage(title));
// A bell flashes the terminal for a moment and tells the host.
const bellFlashDuration = 150;
let bellTimer = 0;
terminal.onBell(() => {
  if (replayWritesInFlight > 0) return;
  if (look.bell === 'visible') {
    container.classList.add('bell-flash');
    clearTimeout(bellTimer);
    bellTimer = setTimeout(() => container.classList.remove('bell-flash'), bellFlashDuration);
  }
  host.bell.postMessage('');
});
// The selection is offered to the host, which holds it as the primary selection.
let selectionIsScheduled = false;
let offeredSelection = '';
terminal.onSelectionChange(() => {
  if (selectionIsScheduled) return;
  selectionIsScheduled = true;
  setTimeout(() => {
    selectionIsScheduled = false;
    if (closed) return;
    const selection = terminal.getSelection();
    if (selection === offeredSelection) return;
    offeredSelection = selection;
    host.selection.postMessage(selection);
  }, 0);
});
// A middle click pastes the primary selection, unless a program follows the
// mouse (then Shift+middle click does).
terminal.element?.addEventListener('mousedown', event => {
  if (event.button !== 1) return;
  if (terminal.modes.mouseTrackingMode !== 'none' && !event.shiftKey) return;
  event.preventDefault();
  event.stopPropagation();
  host.pastePrimary.postMessage('');
}, true);
for (const type of ['mouseup', 'auxclick']) {
  terminal.element?.addEventListener(type, event => {
    if (event.button !== 1) return;
    if (terminal.modes.mouseTrackingMode !== 'none' && !event.shiftKey) return;
    event.preventDefault();
    event.stopPropagation();
  }, true);
}
// Matches of a search in the whole buffer, case-insensitive as the search
// addon's default, as the cell {row, column} where each starts; wrapped rows
// are one line, and a character may be wider or narrower than its text.
function searchMatches(value) {
  const needle = value.toLowerCase();
  const buffer = terminal.buffer.active;
  const matches = [];
  if (!needle) return matches;
  const cell = buffer.getNullCell();
  let row = 0;
  while (row < buffer.length) {
    let text = '';
    const cells = [];
    do {
      const line = buffer.getLine(row);
      for (let column = 0; column < line.length; column += 1) {
        line.getCell(column, cell);
        if (cell.getWidth() === 0) continue;
        const chars = cell.getChars() || ' ';
        text += chars;
        for (let unit = 0; unit < chars.length; unit += 1) cells.push({ row, column });
      }
      row += 1;
    } while (row < buffer.length && buffer.getLine(row).isWrapped);
    const haystack = text.toLowerCase();
    for (let at = haystack.indexOf(needle); at >= 0; at = haystack.indexOf(needle, at + 1)) {
      if (cells[at]) matches.push(cells[at]);
    }
  }
  return matches;
}
function reportSearch(value) {
  const matches = searchMatches(value);
  const selected = terminal.getSelectionPosition();
  let index = -1;
  if (selected) {
    index = matches.findIndex(match =>
      match.row === selected.start.y && match.column === selected.start.x);
  }
  host.searchResults.postMessage({ count: matches.length, index });
}
)js";

constexpr std::string_view bridge = R"js(const kittyDisambiguateEscapeCodes = 1;
const kittyReportEventTypes = 2;
const kittyReportAllKeys = 8;
const shiftEnterSequence = '\x1b[13;2u';
const shiftEnterRepeatSequence = '\x1b[13;2:2u';
const shiftEnterReleaseSequence = '\x1b[13;2:3u';
const keyboardProtocolFlagStacks = { normal: [0], alternate: [0] };
function activeKeyboardProtocolFlagStack() {
  return terminal.buffer.active.type === 'alternate'
    ? keyboardProtocolFlagStacks.alternate
    : keyboardProtocolFlagStacks.normal;
}
function currentKeyboardProtocolFlags() {
  const stack = activeKeyboardProtocolFlagStack();
  return stack[stack.length - 1];
}
function resetKeyboardProtocolFlags() {
  keyboardProtocolFlagStacks.normal.length = 1;
  keyboardProtocolFlagStacks.alternate.length = 1;
}
function resetTerminalForReplay() {
  resetKeyboardProtocolFlags();
  terminal.reset();
}
terminal.parser.registerCsiHandler({ prefix: '>', final: 'u' }, params => {
  const first = params[0];
  const flags = Number.isInteger(first) ? Math.max(0, first) : 0;
  const stack = activeKeyboardProtocolFlagStack();
  if (stack.length >= 64) stack.splice(1, 1);
  stack.push(flags);
  return false;
});
terminal.parser.registerCsiHandler({ prefix: '<', final: 'u' }, params => {
  const first = params[0];
  const count = Number.isInteger(first) && first > 0 ? first : 1;
  const stack = activeKeyboardProtocolFlagStack();
  stack.length = Math.max(1, stack.length - count);
  return false;
});
terminal.parser.registerEscHandler({ final: 'c' }, () => {
  resetKeyboardProtocolFlags();
  return false;
});
terminal.attachCustomKeyEventHandler(event => {
  const isExactShiftEnter = event.key === 'Enter' && event.shiftKey &&
    !event.altKey && !event.ctrlKey && !event.metaKey;
  const flags = currentKeyboardProtocolFlags();
  const usesEnhancedEncoding =
    (flags & (kittyDisambiguateEscapeCodes | kittyReportAllKeys)) !== 0;
  if (!isExactShiftEnter || !usesEnhancedEncoding) return true;
  event.preventDefault();
  event.stopPropagation();
  if (event.type === 'keydown') {
    const reportsRepeat = event.repeat && (flags & kittyReportEventTypes) !== 0;
    terminal.input(reportsRepeat ? shiftEnterRepeatSequence : shiftEnterSequence, true);
  } else if (event.type === 'keyup' &&
             (flags & kittyReportEventTypes) !== 0 && (flags & kittyReportAllKeys) !== 0) {
    terminal.input(shiftEnterReleaseSequence, true);
  }
  return false;
});
)js";

constexpr std::string_view terminalInterface =
    R"js(// A container with no size (hidden, or not laid out yet) leaves the terminal
// as it is: fitted to it, the terminal would shrink to a couple of cells and
// take the shell's size with it.
function fit() {
  if (container.clientWidth > 0 && container.clientHeight > 0) fitAddon.fit();
}
const resizeObserver = new ResizeObserver(fit);
resizeObserver.observe(container);
fit();
// Output waits here while the terminal still has much to parse: past its own
// limit the terminal would throw writes away, and no output may be lost.
const outputWaiting = [];
let outputInTerminal = 0;
const outputInTerminalLimit = 2 * 1024 * 1024;
// A terminal that has shown nothing yet needs no reset before a replay (a
// reset rebuilds the renderer's style sheet).
let terminalWasWritten = false;
function writeToTerminal(bytes) {
  if (bytes.length > 0) terminalWasWritten = true;
  outputInTerminal += bytes.length;
  terminal.write(bytes, () => {
    outputInTerminal -= bytes.length;
    while (outputWaiting.length > 0 && outputInTerminal < outputInTerminalLimit) {
      writeToTerminal(outputWaiting.shift());
    }
  });
}
const api = {
  writeBase64(value, replace) {
    const text = atob(value);
    const bytes = new Uint8Array(text.length);
    for (let index = 0; index < text.length; index += 1) bytes[index] = text.charCodeAt(index);
    if (!replace) {
      if (outputWaiting.length === 0 && outputInTerminal < outputInTerminalLimit) {
        writeToTerminal(bytes);
      } else {
        outputWaiting.push(bytes);
      }
      return;
    }
    // A replay holds all the output before it.
    outputWaiting.length = 0;
    if (terminalWasWritten) resetTerminalForReplay();
    terminalWasWritten = bytes.length > 0;
    if (!terminalWasWritten) return;
    replayWritesInFlight += 1;
    terminal.write(bytes, () => { replayWritesInFlight -= 1; });
  },
  focus() {
    terminal.focus();
  },
  blur() {
    terminal.blur();
  },
  search(value, backwards) {
    const found = backwards ? searchAddon.findPrevious(value) : searchAddon.findNext(value);
    reportSearch(value);
    return found;
  },
  clearSearch() {
    searchAddon.clearDecorations();
    terminal.clearSelection();
  },
  // Text from the host's clipboard, as if typed, in brackets when the program asked.
  paste(text) {
    hostIsPasting = true;
    try {
      terminal.paste(text);
    } finally {
      hostIsPasting = false;
    }
  },
  selectAll() {
    terminal.selectAll();
  },
  setFontSize(size) {
    if (terminal.options.fontSize === size) return;
    terminal.options.fontSize = size;
    fit();
    measureAsciiWidths();
    terminal.refresh(0, terminal.rows - 1);
  },
};
function close() {
  closed = true;
  cancelPlainClick();
  outputWaiting.length = 0;
  clearInterval(blinkTimer);
  resizeObserver.disconnect();
  terminal.dispose();
}
// Takes on what the user chose, and redraws the whole screen in it.
function applyLook() {
  if (!look.options) return;
  for (const [name, value] of Object.entries(look.options)) {
    if (terminal.options[name] !== value) terminal.options[name] = value;
  }
  container.style.background = look.options.theme.background;
  fit();
  measureAsciiWidths();
  terminal.refresh(0, terminal.rows - 1);
}
return { api, fit, close, terminal, applyLook };
}
)js";

// The host's side of the document: its terminals by id, and "loaded" once it
// can open them.
constexpr std::string_view documentInterface = R"js(const terminals = new Map();
const paneChannels = ['input', 'resize', 'openLink', 'ready', 'title', 'bell', 'selection',
  'pastePrimary', 'link', 'searchResults'];
// What a terminal posts reaches the host as { pane, body }; once the terminal
// is closed (or another has taken its id) it posts nothing more.
function paneHandlers(id, isOpen) {
  const handlers = {};
  for (const name of paneChannels) {
    handlers[name] = {
      postMessage(body) {
        if (isOpen()) window.webkit.messageHandlers[name].postMessage({ pane: id, body });
      },
    };
  }
  return handlers;
}
// A rectangle in CSS pixels: { left, top, width, height }.
function placeContainer(container, rect) {
  container.style.left = `${rect.left}px`;
  container.style.top = `${rect.top}px`;
  container.style.width = `${rect.width}px`;
  container.style.height = `${rect.height}px`;
}
// Key events the page has seen, and the moves of the keyboard between
// terminals that wait for keys sent before them. A move is made once the page
// has seen those keys and the last of them has been handled where it was
// aimed (for a key that types, its keypress too), or at the latest after half
// a second, for a key that never reached the page.
let keyEventsSeen = 0;
const waitingMoves = [];
// Set while due moves wait for the key that made them due to be handled.
let dueAfter = null;
function movesAreDue() {
  return waitingMoves.length > 0 && keyEventsSeen >= waitingMoves[0].after;
}
// Called by a terminal's text area after the terminal has handled a key event.
function keyWasHandled(event) {
  if (dueAfter === 'keydown' && event.type === 'keydown') {
    if (!event.defaultPrevented && event.key.length === 1 &&
        !event.ctrlKey && !event.metaKey && !event.altKey) {
      dueAfter = 'keypress';
      return;
    }
  } else if (dueAfter !== event.type) {
    return;
  }
  dueAfter = null;
  makeDueMoves();
}
function makeDueMoves(all = false) {
  while (waitingMoves.length > 0 && (all || keyEventsSeen >= waitingMoves[0].after)) {
    const move = waitingMoves.shift();
    clearTimeout(move.timer);
    try {
      terminals.get(move.id)?.api?.[move.operation]?.();
    } finally {
      window.webkit.messageHandlers.keyboardMoved.postMessage(move.number);
    }
  }
}
for (const type of ['keydown', 'keyup']) {
  window.addEventListener(type, event => {
    if (dueAfter) {
      dueAfter = null;
      makeDueMoves();
    }
    keyEventsSeen += 1;
    if (!movesAreDue()) return;
    // A terminal's own handlers may take the keyboard back (its key-up does).
    if (event.target?.classList?.contains('xterm-helper-textarea')) {
      dueAfter = type;
      return;
    }
    makeDueMoves();
  }, true);
}
window.harborlattice = {
  moveKeyboard(number, after, id, operation) {
    const move = { number, after, id, operation };
    waitingMoves.push(move);
    if (keyEventsSeen >= after && waitingMoves.length === 1) {
      makeDueMoves();
      return;
    }
    move.timer = setTimeout(() => {
      dueAfter = null;
      while (waitingMoves.includes(move)) {
        keyEventsSeen = Math.max(keyEventsSeen, waitingMoves[0].after);
        makeDueMoves();
      }
    }, 500);
  },
  open(id, rect) {
    if (terminals.has(id)) return;
    const container = document.createElement('div');
    container.className = 'terminal';
    container.dataset.pane = id;
    placeContainer(container, rect);
    document.body.appendChild(container);
    const opened = { container };
    terminals.set(id, opened);
    const isOpen = () => terminals.get(id) === opened;
    const host = paneHandlers(id, isOpen);
    try {
      Object.assign(opened, startTerminal(container, host));
    } catch (error) {
      terminals.delete(id);
      container.remove();
      throw error;
    }
    opened.applyLook();
    // An interface the host kept past the close does nothing.
    for (const [name, operation] of Object.entries(opened.api)) {
      opened.api[name] = (...args) => (isOpen() ? operation(...args) : undefined);
    }
    host.ready.postMessage('');
  },
  // Every terminal's font, scrollback, cursor, colours and bell, as one object:
  // { fontFamily, scrollback, cursorStyle, cursorBlink, dark, bell }.
  setOptions(chosen) {
    const theme = chosen.dark ? terminalTheme : lightTheme;
    look.bell = chosen.bell;
    look.blink = chosen.cursorBlink;
    look.options = {
      fontFamily: chosen.fontFamily ? `'${chosen.fontFamily}', ${defaultFontFamily}`
                                    : defaultFontFamily,
      scrollback: chosen.scrollback,
      cursorStyle: chosen.cursorStyle,
      theme: { ...theme },
    };
    document.body.style.background = theme.background;
    for (const opened of terminals.values()) opened.applyLook?.();
  },
  place(id, rect) {
    const opened = terminals.get(id);
    if (!opened) return;
    placeContainer(opened.container, rect);
    opened.fit();
  },
  close(id) {
    const opened = terminals.get(id);
    if (!opened) return;
    terminals.delete(id);
    opened.close();
    opened.container.remove();
  },
  terminal(id) {
    return terminals.get(id)?.api;
  },
  // The xterm.js object itself, for looking into a terminal from the host's
  // debugging tools; nothing of the host's own drives a terminal through it.
  xterm(id) {
    return terminals.get(id)?.terminal;
  },
};
window.webkit.messageHandlers.loaded.postMessage('');
})();
)js";

constexpr std::string_view boolean(bool value) {
    return value ? "true" : "false";
}

// A theme's object literal: its first members as written, then the palette.
std::string themeLiteral(std::string_view head,
                         const std::array<XtermConfiguration::AnsiColour, 16>& palette) {
    std::string text = "{ ";
    text += head;
    for (const auto& colour : palette) {
        text += ", ";
        text += colour.name;
        text += ": '";
        text += colour.value;
        text += "'";
    }
    text += " }";
    return text;
}

}  // namespace

std::string XtermConfiguration::theme() {
    return themeLiteral(
        "background: '#10131a', foreground: '#e6edf3', cursor: '#7ee787', "
        "selectionBackground: '#264f78'",
        ansiPalette);
}

std::string XtermConfiguration::lightTheme() {
    return themeLiteral(
        "background: '#fbfbfc', foreground: '#1f2328', cursor: '#0969da', "
        "selectionBackground: '#b6d6fb'",
        lightPalette);
}

std::string XtermLook::script() const {
    auto quoted = [](const std::string& text) {
        std::string out = "'";
        for (const char c : text) {
            if (c == '\\' || c == '\'') out += '\\';
            if (static_cast<unsigned char>(c) < 0x20) continue;
            out += c;
        }
        return out + "'";
    };
    return "{ fontFamily: " + quoted(fontFamily) + ", scrollback: " + std::to_string(scrollback) +
           ", cursorStyle: " + quoted(cursorStyle) +
           ", cursorBlink: " + (cursorBlink ? "true" : "false") +
           ", dark: " + (dark ? "true" : "false") + ", bell: " + quoted(bell) + " }";
}

std::string XtermView::documentScript() {
    std::string script(documentStart);
    script += XtermConfiguration::theme();
    script += ";\nconst lightTheme = ";
    script += XtermConfiguration::lightTheme();
    script += documentWide;
    script += terminalCreation;
    script += boolean(XtermConfiguration::macOptionIsMeta);
    script += ",\n  screenReaderMode: ";
    script += boolean(XtermConfiguration::screenReaderMode);
    script += ",\n  theme: { ...terminalTheme },\n});";
    script += addonsAndMessages;
    script += bridge;
    script += terminalInterface;
    script += documentInterface;
    return script;
}

std::string_view XtermView::enhancedKeyboardBridge() {
    return bridge;
}

std::string XtermView::htmlNamingScripts(std::string_view css) {
    // The style sheet stays inline: the terminal measures its cells as it opens.
    std::string document(documentHead);
    document += css;
    document += pageStyle.substr(0, pageStyle.size() - std::string_view("<script>").size());
    for (const std::string_view name : scriptAssets) {
        document += "<script src=\"";
        document += name;
        document += "\"></script>";
    }
    document += "\n<script>\n";
    document += documentScript();
    document += documentTail;
    return document;
}

std::string XtermView::html(std::string_view js, std::string_view fit, std::string_view links,
                            std::string_view search, std::string_view unicode,
                            std::string_view css) {
    const std::string script = documentScript();
    std::string document;
    document.reserve(documentHead.size() + css.size() + pageStyle.size() + js.size() +
                     4 * nextScript.size() + fit.size() + links.size() + search.size() +
                     unicode.size() + ownScriptStart.size() + script.size() + documentTail.size());
    document += documentHead;
    document += css;
    document += pageStyle;
    document += js;
    document += nextScript;
    document += fit;
    document += nextScript;
    document += links;
    document += nextScript;
    document += search;
    document += nextScript;
    document += unicode;
    document += ownScriptStart;
    document += script;
    document += documentTail;
    return document;
}

}  // namespace hl
