// Composition of the terminal document and the text of its own script.
#include "XtermView.h"

namespace hl {

namespace {

constexpr std::string_view documentHead =
    "<!doctype html><html><head><meta charset=\"utf-8\"><style>\n";

constexpr std::string_view pageStyle =
    "\nhtml,body,#terminal{width:100%;height:100%;margin:0;overflow:hidden;background:#10131a}"
    "\n</style></head><body><div id=\"terminal\"></div>\n<script>";

constexpr std::string_view nextScript = "</script><script>";

constexpr std::string_view ownScriptStart = "</script>\n<script>\n";

constexpr std::string_view documentTail = "</script></body></html>";

constexpr std::string_view terminalCreation = R"js(const terminal = new Terminal({
  cursorBlink: true,
  allowProposedApi: false,
  scrollback: 10000,
  fontFamily: 'SFMono-Regular, Menlo, monospace',
  fontSize: 13,
  macOptionIsMeta: )js";

constexpr std::string_view addonsAndMessages = R"js(
const fitAddon = new FitAddon.FitAddon();
const searchAddon = new SearchAddon.SearchAddon();
terminal.loadAddon(fitAddon);
terminal.loadAddon(searchAddon);
terminal.loadAddon(new WebLinksAddon.WebLinksAddon((event, uri) => {
  window.webkit.messageHandlers.openLink.postMessage(uri);
}));
terminal.open(document.getElementById('terminal'));
if (terminal.element) terminal.element.setAttribute('aria-label', 'Terminal output');
if (terminal.textarea) terminal.textarea.setAttribute('aria-label', 'Terminal input');
terminal.onData(data => window.webkit.messageHandlers.input.postMessage(data));
terminal.onResize(size => window.webkit.messageHandlers.resize.postMessage(size));
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

constexpr std::string_view hostInterface =
    R"js(new ResizeObserver(() => fitAddon.fit()).observe(document.body);
fitAddon.fit();
window.harborlattice = {
  writeBase64(value, replace) {
    const bytes = Uint8Array.from(atob(value), character => character.charCodeAt(0));
    if (replace) resetTerminalForReplay();
    terminal.write(bytes);
  },
  focus() {
    terminal.focus();
  },
  blur() {
    terminal.blur();
  },
  search(value, backwards) {
    return backwards ? searchAddon.findPrevious(value) : searchAddon.findNext(value);
  },
};
window.webkit.messageHandlers.ready.postMessage('');
)js";

constexpr std::string_view boolean(bool value) {
    return value ? "true" : "false";
}

}  // namespace

std::string XtermConfiguration::theme() {
    std::string text =
        "{ background: '#10131a', foreground: '#e6edf3', cursor: '#7ee787', "
        "selectionBackground: '#264f78'";
    for (const auto& colour : ansiPalette) {
        text += ", ";
        text += colour.name;
        text += ": '";
        text += colour.value;
        text += "'";
    }
    text += " }";
    return text;
}

std::string XtermView::documentScript() {
    std::string script(terminalCreation);
    script += boolean(XtermConfiguration::macOptionIsMeta);
    script += ",\n  screenReaderMode: ";
    script += boolean(XtermConfiguration::screenReaderMode);
    script += ",\n  theme: ";
    script += XtermConfiguration::theme();
    script += ",\n});";
    script += addonsAndMessages;
    script += bridge;
    script += hostInterface;
    return script;
}

std::string_view XtermView::enhancedKeyboardBridge() {
    return bridge;
}

std::string XtermView::html(std::string_view js, std::string_view fit, std::string_view links,
                            std::string_view search, std::string_view css) {
    const std::string script = documentScript();
    std::string document;
    document.reserve(documentHead.size() + css.size() + pageStyle.size() + js.size() +
                     3 * nextScript.size() + fit.size() + links.size() + search.size() +
                     ownScriptStart.size() + script.size() + documentTail.size());
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
    document += ownScriptStart;
    document += script;
    document += documentTail;
    return document;
}

}  // namespace hl
