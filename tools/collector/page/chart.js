// The chart of the view Live: rows a minute.

const SPANS = [15, 60];  // minutes on the chart: the few when all rows fit in

function showChart() {
  const now = Math.floor(Date.now() / 60000);
  const newest = store.length ? store.at(0).minute : now;
  const end = now - newest < SPANS[1] ? now : newest;  // old rows alone are shown where they are
  const oldest = store.length ? store.at(store.length - 1).minute : now;
  const span = SPANS.find((minutes) => end - oldest < minutes) ?? SPANS[1];
  const wanted = Array.from({length: span}, (_, i) => end - span + 1 + i);
  const peak = Math.max(1, ...wanted.map(totalOf));
  const width = 600 / span;
  const bars = wanted.flatMap((minute, i) => barsOf(minute, i * width, width, peak));
  byId("chart").replaceChildren(svg("rect", {y: 71, width: 600, height: 1, fill: "var(--line)"}), ...bars);
  byId("chart-from").textContent = minuteText(wanted[0]);
  byId("chart-peak").textContent = `rows a minute, at most ${peak.toLocaleString("en")}`;
  byId("chart-to").textContent = end === now ? `${minuteText(end)}, now` : minuteText(end);
}

const isChosen = (table, minute) => filter.table === table && filter.minute === minute;
const totalOf = (minute) => [...(minutes.get(minute)?.values() ?? [])].reduce((sum, count) => sum + count, 0);

function barsOf(minute, x, width, peak) {
  let y = 71;
  const bars = [];
  for (const [table, count] of minutes.get(minute) ?? []) {
    const height = Math.max(1, (count / peak) * 68);
    y -= height;
    const isDim = (filter.table && filter.table !== table) || (filter.minute !== null && filter.minute !== minute);
    bars.push(svg("rect", {
      x: x + 1, y, width: width - 2, height, fill: fillOf(table), opacity: isDim ? 0.25 : 1, "data-table": table,
      click: () => setFilter(isChosen(table, minute) ? {table: "", minute: null} : {table, minute}),
    }, svg("title", {}, `${table}: ${count}`)));
  }
  return bars;
}
