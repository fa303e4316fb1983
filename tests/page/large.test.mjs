import assert from "node:assert/strict";
import {pageTest} from "./page_test.mjs";
import {column, event, eventually, send} from "./support.mjs";

const ROWS = 100000;  // the page holds no more
const BATCH = 10000;
const MAX_TASK = 400;  // ms, on a slow machine with everything on its two cores

pageTest("A hundred thousand rows stay fluid", {}, async (page, collector) => {
  const sendEvents = async (from, to) => {
    for (let first = from; first <= to; first += BATCH) {
      const numbered = (_, i) => event(first + i, "S", `Event ${first + i}`, {Value: i, place: "shelf"});
      await send(collector, {Events: Array.from({length: BATCH}, numbered)});
    }
  };
  const shows = (rows) => eventually(() => page.locator("#shown").textContent(), `${rows.toLocaleString("en")} rows`);
  const showsNewest = (n) => eventually(async () => (await column(page, "name"))[0], `Event ${n}`);
  const search = (text) => page.getByLabel("Search all fields").fill(text);
  const scroll = () => page.evaluate(async () => {
    const scroller = document.getElementById("scroller");
    for (let i = 0; i <= 120; ++i) {
      scroller.scrollTop = (scroller.scrollHeight * i) / 120;
      await new Promise(requestAnimationFrame);
    }
  });
  await sendEvents(1, ROWS);
  await page.reload();
  await page.evaluate(() => {
    window.longest = 0;
    new PerformanceObserver((entries) => {
      window.longest = Math.max(window.longest, ...entries.getEntries().map((entry) => entry.duration));
    }).observe({type: "longtask"});
  });
  const steps = [["the past", () => shows(ROWS)], ["scrolling", scroll],
    ["a search", () => search("event 99").then(() => shows(1111))], ["all again", () => search("")],
    ["the newest", () => sendEvents(ROWS + 1, ROWS + BATCH).then(() => showsNewest(ROWS + BATCH))]];
  for (const [what, act] of steps) {
    await act();
    const longest = await page.evaluate(() => window.longest);
    console.log(`longest task after ${what}: ${Math.round(longest)} ms`);
    assert.ok(longest < MAX_TASK, what);
  }
  assert.ok(await page.locator("*").count() < 1500, "elements");
});
