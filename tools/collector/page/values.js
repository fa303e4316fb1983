// Texts that applications sent: cut when long, JSON as a tree or raw, each with a button that copies it.

/** Copies `text`; over plain HTTP from another computer there is no clipboard but the old command. */
async function copy(text) {
  if (navigator.clipboard) return navigator.clipboard.writeText(text).then(() => true, () => false);
  const area = el("textarea", {});
  area.value = text;
  document.body.append(area);
  area.select();
  const done = document.execCommand("copy");
  area.remove();
  return done;
}

function copyButton(label, text) {
  const button = el("button", {click: async () => {
    button.textContent = (await copy(text())) ? "Copied" : "Not allowed here";
    setTimeout(() => { button.textContent = label; }, 1500);
  }}, label);
  return button;
}

const LONG = 20000;  // characters shown before the reader asks for all

function longText(text, tag = "div") {
  const box = el(tag, {class: "value"}, textNodes(text.slice(0, LONG)));
  if (text.length <= LONG) return box;
  const showAll = () => {
    box.replaceChildren(document.createTextNode(visible(text)));
    all.remove();
  };
  const all = el("button", {click: showAll},
    `Show all ${text.length.toLocaleString("en")} characters`);
  return el("div", {}, box, all);
}

function fieldOf(name, value) {
  const parsed = parseJSON(value);
  const show = () => (parsed ? treeOf(parsed) : longText(value));
  const box = el("div", {}, value === "" ? el("span", {class: "soft"}, "empty") : show());
  const raw = parsed && el("button", {"aria-pressed": "false", click: () => {
    const isRaw = raw.getAttribute("aria-pressed") === "false";
    raw.setAttribute("aria-pressed", String(isRaw));
    box.replaceChildren(isRaw ? longText(value) : treeOf(parsed));
  }}, "Raw");
  return el("div", {class: "field"},
    el("div", {class: "bar"}, el("b", {}, textNodes(name)),
      el("span", {class: "bar"}, raw, copyButton("Copy", () => value))), box);
}

/** A number as it was written: it may have more digits than a double holds. */
class Numeral { constructor(source) { this.source = source; } }

/** The object or array that `text` is, or null. */
function parseJSON(text) {
  if (!/^\s*[[{]/.test(text)) return null;
  try {
    return JSON.parse(text, (key, value, context) =>
      (typeof value === "number" ? new Numeral(context?.source ?? String(value)) : value));
  } catch {
    return null;
  }
}

const isBranch = (value) => value !== null && typeof value === "object" && !(value instanceof Numeral);
const leafText = (value) => (value instanceof Numeral ? value.source : JSON.stringify(value));
const WIDE = 200;   // members of a branch shown before the reader asks for more
const NARROW = 10;  // members of a branch that is open from the start, if it is not deep inside

/** A tree whose branches are built when they are opened. */
function treeOf(value) {
  const root = el("div", {class: "tree"});
  addMembers(root, value, 0, 0);
  return root;
}

function addMembers(parent, value, from, depth) {
  const entries = Object.entries(value);
  if (entries.length === 0) parent.append(el("div", {class: "soft"}, Array.isArray(value) ? "[ ] empty" : "{ } empty"));
  for (const [key, member] of entries.slice(from, from + WIDE)) {
    parent.append(isBranch(member) ? branch(key, member, depth + 1) : leaf(key, member));
  }
  if (entries.length <= from + WIDE) return;
  const showMore = () => {
    more.remove();
    addMembers(parent, value, from + WIDE, depth);
  };
  const more = el("button", {click: showMore}, `${entries.length - from - WIDE} more`);
  parent.append(more);
}

const leaf = (key, member) => el("div", {}, el("span", {class: "soft"}, textNodes(clip(key, 300)), ": "),
  textNodes(clip(leafText(member), LONG)));

function branch(key, member, depth) {
  const size = Object.keys(member).length;
  const build = () => { if (details.open && details.children.length === 1) addMembers(details, member, 0, depth); };
  const details = el("details", {toggle: build, open: size <= NARROW && depth < 4},
    el("summary", {}, textNodes(clip(key, 300)), Array.isArray(member) ? ` [${size}]` : ` {${size}}`));
  return details;
}

const headerTable = (headers) => el("details", {}, el("summary", {}, `Headers (${headers.length})`), pairs(headers));

/** A body, laid out if it is JSON. */
function bodyBox(text) {
  const parsed = parseJSON(text);
  return parsed ? fieldOf("Body", text) : text === "" ? el("p", {class: "soft"}, "empty") : longText(text, "pre");
}
