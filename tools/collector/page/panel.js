// All of one row, beside any view.

let openedFrom = null;

function openPanel(row, takesFocus = true) {
  const panel = byId("panel");
  if (panel.hidden) openedFrom = document.activeElement;
  panel.hidden = false;
  panel.replaceChildren(
    el("div", {class: "top"}, el("h2", {}, textNodes(clip(row.name || row.table, 300))),
      copyButton("Copy JSON", () => JSON.stringify(Object.fromEntries(row.fields), null, 2)),
      el("button", {click: closePanel, "aria-label": "Close", title: "Escape"}, "✕")),
    pairs([["Table", row.table], ["State", stateText(row)], ["Number", String(row.n)],
      ["Received", timeAndDate(row.received)], ["Lag", lagText(row.lagMs)], ["User", row.user],
      ["Device", row.device], ["Token", row.token], ["Batch", String(row.batch ?? "")]]),
    el("h3", {}, "Fields, in the order as sent"),
    ...row.fields.map(([name, value]) => fieldOf(name, value)));
  panel.scrollTop = 0;
  if (takesFocus) panel.focus();
  invalidate(showList);
}

function closePanel() {
  if (byId("panel").hidden) return;
  byId("panel").hidden = true;
  openedFrom?.focus?.();
  invalidate(showList);
}
