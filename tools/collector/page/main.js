// The tabs, the keys, and the start.

const VIEWS = [["live", "Live"], ["sessions", "Sessions"], ["batches", "Batches"], ["handshakes", "Handshakes"],
               ["behaviour", "Server behaviour"], ["health", "Health"]];

function makeTabs() {
  byId("tabs").append(...VIEWS.map(([id, label], place) => el("button",
    {role: "tab", id: `tab-${id}`, "aria-controls": id, click: () => showView(id)},
    label, el("span", {id: `refused-${id}`, class: "bad"}), " ", el("kbd", {}, String(place + 1)))));
}

function showView(id) {
  closePanel();
  for (const [view] of VIEWS) {
    byId(view).hidden = view !== id;
    byId(`tab-${view}`).setAttribute("aria-selected", String(view === id));
    byId(`tab-${view}`).tabIndex = view === id ? 0 : -1;
  }
  history.replaceState(null, "", `#${id}`);
  if (id === "live") invalidate(showList);
  if (id === "sessions") { loadSessions(); soon(showTimeLine, 0); }
  if (id === "health") { showHealth(); soon(refreshSummary, 0); }
}

/** The neighbour that an arrow key means, in a row or column of buttons. */
function moveAmong(buttons, key) {
  const step = {ArrowDown: 1, ArrowRight: 1, ArrowUp: -1, ArrowLeft: -1}[key];
  const next = step && buttons[buttons.indexOf(document.activeElement) + step];
  if (next) next.focus();
  return next;
}

function onEscape() {
  if (!byId("panel").hidden) return closePanel();
  if (document.activeElement === byId("search")) {
    byId("search").value = "";
    setFilter({text: ""});
    byId("grid").focus();
  }
}

function onPlainKey(key) {
  if (/^[1-6]$/.test(key)) { showView(VIEWS[key - 1][0]); byId(`tab-${VIEWS[key - 1][0]}`).focus(); return true; }
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
  if (key === "Enter" && row && byId("panel").hidden) { choose(shown.indexOf(row.n)); openPanel(row); return true; }
  if (!moveChoice(key)) return false;
  if (active === document.body) byId("grid").focus();
  return true;
}

document.addEventListener("keydown", (event) => {
  if (event.ctrlKey || event.metaKey || event.altKey) return;
  if (event.key === "Escape") return onEscape();
  const active = document.activeElement;
  if (active.matches("textarea, select, input:not([type=radio]):not([type=checkbox])")) return;
  const group = active.closest(".list, [role=tablist]");
  const isTaken = onPlainKey(event.key) || (group && moveAmong([...group.children], event.key)) || onListKey(event.key);
  if (isTaken) event.preventDefault();
});

byId("search").addEventListener("input", (event) => setFilter({text: event.target.value}));
byId("search").addEventListener("keydown", (event) => {
  if (event.key !== "Enter" && event.key !== "ArrowDown") return;
  byId("grid").focus();
  event.stopPropagation();
  event.preventDefault();
});
byId("by-session").addEventListener("change", (event) => setFilter({session: event.target.value}));
byId("by-token").addEventListener("change", (event) => setFilter({token: event.target.value}));
byId("by-minute").addEventListener("click", () => setFilter({minute: null}));
byId("pause").addEventListener("click", togglePause);
byId("clear").addEventListener("click", clearRows);
byId("scroller").addEventListener("scroll", () => invalidate(showList), {passive: true});
new ResizeObserver(() => invalidate(showList)).observe(byId("scroller"));
setInterval(showChart, 20000);  // the minutes move on without rows, too

document.body.append(stripes());
makeTabs();
makeBehaviour();
const wanted = location.hash.slice(1);
showView(VIEWS.some(([id]) => id === wanted) ? wanted : "live");
connect();
