// Elements of the document and texts as all views show them. What applications sent only ever
// becomes text nodes: nothing is parsed as HTML, no text becomes an attribute that acts.

const byId = (id) => document.getElementById(id);

/** Sets `attributes` (a function is a listener, true an empty attribute) and appends `children`. */
function furnish(node, attributes, children) {
  for (const [name, value] of Object.entries(attributes)) {
    if (typeof value === "function") node.addEventListener(name, value);
    else if (value !== false && value != null) node.setAttribute(name, value === true ? "" : value);
  }
  node.append(...children.flat(Infinity).filter((child) => child != null));
  return node;
}
const el = (tag, attributes = {}, ...children) => furnish(document.createElement(tag), attributes, children);
const svg = (tag, attributes = {}, ...children) =>
  furnish(document.createElementNS("http://www.w3.org/2000/svg", tag), attributes, children);

const UNSEEN = /[\u0000-\u0008\u000b-\u001f\u007f-\u009f\u061c\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff]/;
const nameOfUnseen = (c) => "U+" + c.charCodeAt(0).toString(16).toUpperCase().padStart(4, "0");

/** Text as nodes; characters that would not be seen, or would turn the line around, by their numbers. */
function textNodes(text) {
  if (!UNSEEN.test(text)) return [document.createTextNode(text)];
  return text.split(new RegExp(`(${UNSEEN.source})`)).filter((part) => part !== "").map((part) =>
    UNSEEN.test(part) ? el("span", {class: "unseen"}, nameOfUnseen(part)) : document.createTextNode(part));
}
const visible = (text) => text.replace(new RegExp(UNSEEN.source, "g"), nameOfUnseen);

const clip = (text, length) => (text.length > length ? text.slice(0, length) + "…" : text);
const plural = (count, word, ending = "s") => `${count.toLocaleString("en")} ${word}${count === 1 ? "" : ending}`;
/** The neighbour that an arrow key means, in a row or column of controls. */
function moveAmong(controls, key) {
  const step = {ArrowDown: 1, ArrowRight: 1, ArrowUp: -1, ArrowLeft: -1}[key];
  const next = step && controls[controls.indexOf(document.activeElement) + step];
  if (next) next.focus();
  return next;
}

/** Runs `task` before the next frame, once, however often it is asked for. */
const nextFrame = new Set();
function invalidate(task) {
  if (nextFrame.size === 0) {
    requestAnimationFrame(() => {
      const tasks = [...nextFrame];
      nextFrame.clear();
      for (const one of tasks) one();
    });
  }
  nextFrame.add(task);
}

/** Runs `task` within `ms`, once, however often it is asked for: for what is costly to show. */
const timers = new Map();
function soon(task, ms = 400) {
  if (timers.has(task)) return;
  timers.set(task, setTimeout(() => { timers.delete(task); task(); }, ms));
}

const pairs = (entries, look = "") => el("dl", {class: look}, entries.filter(([, value]) => value !== "")
  .map(([name, value]) => [el("dt", {}, textNodes(name)), el("dd", {}, textNodes(clip(value, 2000)))]));

/** A table whose columns from `firstNumber` on hold numbers. */
const table = (heads, rows, firstNumber = heads.length) => el("div", {class: "scroll"}, el("table", {},
  el("thead", {}, el("tr", {}, heads.map((head, i) =>
    el("th", {scope: "col", class: i < firstNumber ? "" : "number"}, head)))),
  el("tbody", {}, rows)));
