import assert from "node:assert/strict";
import {pageTest} from "./page_test.mjs";
import {column, event, eventually, send} from "./support.mjs";

const ROWS = 100000;  // the page holds no more
const BATCH = 10000;

pageTest("A hundred thousand rows need few elements", {}, async (page, collector) => {
  const sendEvents = async (from, to) => {
    for (let first = from; first <= to; first += BATCH) {
      const numbered = (_, i) => event(first + i, "S", `Event ${first + i}`, {Value: i, place: "shelf"});
      await send(collector, {Events: Array.from({length: BATCH}, numbered)});
    }
  };
  const shows = (rows) => page.locator("#shown").getByText(`${rows} rows`, {exact: true}).waitFor();
  await sendEvents(1, ROWS);
  await page.reload();
  await shows("100,000");
  await page.getByLabel("Search all fields").fill("event 99");
  await shows("1,111");
  await page.getByLabel("Search all fields").fill("");
  await shows("100,000");
  await page.locator("#scroller").evaluate((scroller) => { scroller.scrollTop = scroller.scrollHeight; });
  await eventually(async () => (await column(page, "name")).at(-1), "Event 1");
  await page.locator("#scroller").evaluate((scroller) => { scroller.scrollTop = 0; });
  await sendEvents(ROWS + 1, ROWS + BATCH);
  await eventually(async () => (await column(page, "name"))[0], `Event ${ROWS + BATCH}`);
  assert.ok(await page.locator("*").count() < 1500);
});
