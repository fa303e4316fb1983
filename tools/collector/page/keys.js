// The keys, and the list of them.

const KEYS = [["1 to 6", "the views"], ["/", "search"], ["↑ ↓ PageUp PageDown Home End", "choose a row"],
              ["Enter", "open the chosen row"], ["Escape", "close the row; empty the search"],
              ["p", "pause and resume"], ["Tab", "the next control"],
              ["← → ↑ ↓", "within tabs, lists, column heads and the time line"], ["?", "this list"]];

function makeKeys() {
  byId("keys").append(el("h2", {}, "Keys"), pairs(KEYS),
    el("form", {method: "dialog", class: "apart"}, el("button", {}, "Close")));
  byId("help").addEventListener("click", () => byId("keys").showModal());
}

function onEscape() {
  if (panel.row) return closePanel();
  if (document.activeElement === byId("search")) {
    setFilter({text: ""});
    byId("grid").focus();
  }
}

function onPlainKey(key) {
  if (/^[1-6]$/.test(key)) { showView(VIEWS[key - 1][0]); byId(`tab-${VIEWS[key - 1][0]}`).focus(); return true; }
  if (key === "?") { byId("keys").showModal(); return true; }
  if (byId("live").hidden) return false;
  if (key === "p") { togglePause(); return true; }
  if (key === "/") { closePanel(); byId("search").select(); byId("search").focus(); return true; }
  return false;
}

/** Keys of the list count wherever nothing else wants them: on it, in its panel, or nowhere in particular. */
function onListKey(key) {
  const active = document.activeElement;
  if (byId("live").hidden || ![document.body, byId("grid"), byId("panel")].includes(active)) return false;
  const row = shown.at(Math.max(0, shown.indexOf(list.chosen)));
  if (key === "Enter" && row && !panel.row) { choose(row); openPanel(row); return true; }
  if (!moveChoice(key)) return false;
  if (active === document.body) byId("grid").focus();
  return true;
}

/** Controls that arrow keys move among: all buttons of a group, or the dots of the time line in their order. */
function groupOf(active) {
  const group = active.closest(".list, .head, .lanes, [role=tablist]");
  return group && [...group.querySelectorAll("button, .dot")];
}

document.addEventListener("keydown", (event) => {
  if (event.ctrlKey || event.metaKey || event.altKey || byId("keys").open) return;
  if (event.key === "Escape") return onEscape();
  const active = document.activeElement;
  if (active.matches("textarea, select, input:not([type=radio]):not([type=checkbox])")) return;
  const group = groupOf(active);
  const isTaken = onPlainKey(event.key) || (group && moveAmong(group, event.key)) || onListKey(event.key);
  if (isTaken) event.preventDefault();
});
