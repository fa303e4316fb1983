import assert from "node:assert/strict";
import {pageTest} from "./page_test.mjs";
import {event, eventually, namesOf, send, session} from "./support.mjs";

const ROWS = 100000;
const LIVE = 20000;   // of them, pushed to an open page
const BATCH = 10000;  // rows
const SLOWEST = 400;  // ms that one frame or task may take, on a slow machine with everything on its two cores

/** Notes the longest task, and the longest time between two frames, from now on. */
const watch = (page) => page.evaluate(() => {
  window.longest = {task: 0, frame: 0};
  window.watcher?.disconnect();
  window.watcher = new PerformanceObserver((entries) => {
    for (const {duration} of entries.getEntries()) window.longest.task = Math.max(window.longest.task, duration);
  });
  window.watcher.observe({type: "longtask"});
});
async function report(page, what) {
  const {task, frame} = await page.evaluate(() => window.longest);
  const text = (ms) => (ms ? `${Math.round(ms)} ms` : "under 50 ms");  // shorter tasks are not told
  console.log(`${what}: longest task ${text(task)}${frame ? `, longest frame ${text(frame)}` : ""}`);
  assert.ok(Math.max(task, frame) < SLOWEST, what);
}

/** Scrolls from end to end in jumps, one a frame, and notes how long the frames took. */
const scroll = (page) => page.evaluate(async () => {
  const scroller = document.getElementById("scroller");
  const frame = () => new Promise((resolve) => requestAnimationFrame(resolve));
  let before = await frame();
  for (let i = 0; i <= 120; ++i) {
    scroller.scrollTop = (scroller.scrollHeight * i) / 120;
    const now = await frame();
    window.longest.frame = Math.max(window.longest.frame, now - before);
    before = now;
  }
});

const shows = (page, rows) =>
  eventually(() => page.locator("#shown").textContent(), `${rows.toLocaleString("en")} rows`);

/** Sends events number `from` to `to`. */
async function sendEvents(collector, from, to) {
  for (let first = from; first <= to; first += BATCH) {
    const numbered = (_, i) => event(first + i, "S", `Event ${first + i}`, {Value: i, place: "shelf"});
    await send(collector, {Events: Array.from({length: BATCH}, numbered)});
  }
}

pageTest("A hundred thousand rows stay fluid", {}, async (page, collector) => {
  await send(collector, {Sessions: [session(1, "S", "D")]});
  await watch(page);
  let began = Date.now();
  await sendEvents(collector, 1, LIVE);
  await shows(page, LIVE + 1);
  console.log(`${LIVE} rows were sent, taken and on the page after ${Date.now() - began} ms`);
  await report(page, "while rows arrive");
  assert.equal((await namesOf(page))[0], `Event ${LIVE}`);

  const address = page.url();
  await page.goto("about:blank");
  await sendEvents(collector, LIVE + 1, ROWS);
  began = Date.now();
  await page.goto(address);
  await watch(page);
  await shows(page, ROWS + 1);
  console.log(`${ROWS} rows that were there before were on a new page after ${Date.now() - began} ms`);
  await report(page, "while a page is filled");

  await watch(page);
  await scroll(page);
  await report(page, "while scrolling");
  const elements = await page.evaluate(() => document.querySelectorAll("*").length);
  console.log(`${elements} elements in the document`);
  assert.ok(elements < 1500, `${elements} elements`);

  await watch(page);
  began = Date.now();
  await page.getByLabel("Search all fields").fill("event 99");
  await shows(page, 1111);
  console.log(`a search through all rows took ${Date.now() - began} ms`);
  await report(page, "while searching");

  await watch(page);
  await page.getByLabel("Search all fields").fill("");
  await sendEvents(collector, ROWS + 1, ROWS + BATCH);
  await eventually(async () => (await namesOf(page))[0], `Event ${ROWS + BATCH}`);
  await report(page, "while the oldest rows make room");
});
