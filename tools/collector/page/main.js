// The tabs, the controls, and the start.

const VIEWS = [["live", "Live"], ["sessions", "Sessions"], ["batches", "Batches"], ["handshakes", "Handshakes"],
               ["behaviour", "Server behaviour"], ["health", "Health"]];

const viewNow = () => VIEWS.find(([id]) => !byId(id).hidden)[0];

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
  byId(`tab-${id}`).scrollIntoView({block: "nearest", inline: "nearest"});
  noteAddress();
  if (id === "live") invalidate(showList);
  if (id === "sessions") { loadSessions(); soon(showTimeLine, 0); }
  if (id === "health") { showHealth(); soon(refreshSummary, 0); }
}

// Typing is one step, however many letters it has.
byId("search").addEventListener("input", ({target}) => setFilter({text: target.value}, filter.text === ""));
byId("search").addEventListener("keydown", (event) => {
  if (event.key !== "Enter" && event.key !== "ArrowDown") return;
  byId("grid").focus();
  event.stopPropagation();
  event.preventDefault();
});
byId("by-session").addEventListener("change", (event) => setFilter({session: event.target.value}));
byId("by-token").addEventListener("change", (event) => setFilter({token: event.target.value}));
byId("by-minute").addEventListener("click", () => setFilter({minute: null}));
byId("no-filter").addEventListener("click", () => { setFilter(NO_FILTER); byId("grid").focus(); });
byId("pause").addEventListener("click", togglePause);
byId("clear").addEventListener("click", clearRows);
byId("scroller").addEventListener("scroll", () => invalidate(showList), {passive: true});
new ResizeObserver(() => invalidate(showList)).observe(byId("scroller"));
setInterval(showChart, 20000);  // the minutes move on without rows, too

document.body.append(stripes());
makeTabs();
makeZones();
makeHeads();
makeKeys();
makeBehaviour();
readAddress();
connect();
