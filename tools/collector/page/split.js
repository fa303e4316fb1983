// Views with a list of entries and one of them in full: sessions, batches, handshakes.

function statusText({status, fault}) {
  const isGood = status === 200 && !fault;
  return el("span", {class: isGood ? "good" : "bad"}, isGood ? "✓ 200" : `✗ ${status || "no answer"}`);
}

function addTo(view, item) {
  view.items = [item, ...view.items.filter((other) => other.n !== item.n)].slice(0, 200);
  soon(view.show ??= () => showSplit(view), 200);
}

function chooseEntry(view, key) {
  view.chosen = key;
  view.shownKey = null;
  showSplit(view);
}

/** Shows a view's list, and the chosen item if it is not shown already. */
function showSplit(view) {
  const section = byId(view.id);
  if (!section.firstChild) {
    section.append(el("div", {class: "split"},
      el("div", {class: "card list", role: "group", "aria-label": "Choose one"}),
      el("div", {class: "card", "aria-live": "off"})));
  }
  const [choices, detail] = section.firstChild.children;
  const focused = choices.contains(document.activeElement) ? document.activeElement.dataset.key : null;
  choices.replaceChildren(...view.items.map((item) => el("button", {
    "data-key": view.key(item), "aria-current": String(view.key(item) === view.chosen),
    click: () => { chooseEntry(view, view.key(item)); noteAddress(); },
  }, view.label(item))));
  if (focused !== null) [...choices.children].find((button) => button.dataset.key === focused)?.focus();
  const item = view.items.find((one) => view.key(one) === view.chosen) ?? view.items[0];
  choices.hidden = !item;
  if (!item) { view.shownKey = null; return detail.replaceChildren(el("p", {class: "soft"}, view.none)); }
  choices.querySelector(`[data-key="${CSS.escape(view.key(item))}"]`)?.setAttribute("aria-current", "true");
  if (view.shownKey === view.key(item)) return;
  view.shownKey = view.chosen = view.key(item);
  detail.replaceChildren(...view.detail(item));
}
