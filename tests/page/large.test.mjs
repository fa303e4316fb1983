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
  const shows = (rows) => page.locator("#shown").getByText(`${rows} rows`, {exact: true}).waitFor();
  await sendEvents(1, ROWS);
  await page.reload();
  await page.evaluate(() => {
    window.longest = 0;
    new PerformanceObserver((entries) => {
      window.longest = Math.max(window.longest, ...entries.getEntries().map((entry) => entry.duration));
    }).observe({type: "longtask"});
  });
  await shows("100,000");
  await page.locator("#scroller").evaluate(async (scroller) => {
    for (let i = 0; i <= 120; ++i) {
      scroller.scrollTop = (scroller.scrollHeight * i) / 120;
      await new Promise(requestAnimationFrame);
    }
  });
  await page.getByLabel("Search all fields").fill("event 99");
  await shows("1,111");
  await page.getByLabel("Search all fields").fill("");
  await sendEvents(ROWS + 1, ROWS + BATCH);
  await eventually(async () => (await column(page, "name"))[0], `Event ${ROWS + BATCH}`);
  const longest = await page.evaluate(() => window.longest);
  assert.ok(longest < MAX_TASK, `the longest task took ${longest} ms`);
  assert.ok(await page.locator("*").count() < 1500, "elements");
});
