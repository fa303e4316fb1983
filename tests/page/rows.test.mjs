import assert from "node:assert/strict";
import {pageTest} from "./page_test.mjs";
import {column, countRows, event, eventually, post, send, session, user} from "./support.mjs";

const at = (seconds, row) => ({...row, UTCTimeStamp: `2026-01-02 10:00:0${seconds}.000`});
const crash = (id, address) => ({id, SessionID: "S-ONE", CrashDetails: `SIGSEGV ${id}`, StackTrace:
  `0 libc.so.6 0x00007fbd${address} raise + 0x1\n1 shop 0x0000563d${address} total() + 0x1c\n2 shop 0x1 main + 0x2`});
const ALIKE = "2 alike · total() + 0x1c";

/** One batch, whose tables are not in the order of time. */
const sendCrashes = (collector) => send(collector, {
  Sessions: [at(0, {...session(1, "S-ONE", "DEVICE-A"), OS: "iOS"})], Users: [at(1, user(1, "S-ONE", "ada"))],
  Events: [at(4, event(1, "S-ONE", "buy", {Value: 1})), at(2, event(2, "S-ONE", ""))],
  Crashes: [at(5, crash("1", "eb694cc1")), at(6, crash("2", "eb694cc2"))],
  Errors: [at(3, {id: "1", SessionID: "S-ONE", ErrorName: "Declined", ErrorMessage: "no\ncard", ErrorDetails: "{}"})],
});
const NAMES = ["SIGSEGV 2", "SIGSEGV 1", "buy", "Declined", "(empty)", "ada", "com.example.shop"];

pageTest("Rows are ordered, previewed, marked and sorted", {}, async (page, collector) => {
  await sendCrashes(collector);
  await eventually(() => column(page, "name"), NAMES);
  assert.deepEqual(await column(page, "name .soft"),
    [ALIKE, ALIKE, '{"Value":1}', "no\ncard · {}", "", "id", "1.4 · Pocket 3"]);
  assert.equal(await page.locator("#spacer .bad").count(), 3);
  const byName = ["(empty)", "ada", "buy", "com.example.shop", "Declined", "SIGSEGV 1", "SIGSEGV 2"];
  const steps = [["Name", "ascending", byName], ["Name", "descending", byName.toReversed()],
    ["Lag", "ascending", NAMES], ["Received", "descending", NAMES], ["Received", "ascending", NAMES.toReversed()]];
  for (const [label, sort, names] of steps) {
    await page.getByRole("button", {name: label, exact: true}).press("Enter");
    await eventually(() => column(page, "name"), names);
    assert.equal(await page.locator(`[aria-sort=${sort}]`).textContent(), label);
  }
  await send(collector, {Events: [at(7, event(3, "S-ONE", "last"))]});
  await eventually(() => column(page, "name"), [...NAMES.toReversed(), "last"]);
  await page.keyboard.press("6");
  await page.locator("#health tr", {hasText: "total() + 0x1cSIGSEGV 2"}).getByText("2", {exact: true}).waitFor();
});

pageTest("Sessions and times speak of one zone", {timezoneId: "Asia/Tokyo"}, async (page, collector) => {
  await sendCrashes(collector);
  await post(collector, "init", {OS: "iOS", BundleID: "b"});
  for (const [zone, hour] of [["UTC", "10:00"], ["Asia/Tokyo", "19:00"]]) {
    await page.keyboard.press("1");
    await page.getByLabel("Time zone").selectOption({label: zone});
    await eventually(async () => (await column(page, "time"))[0], `${hour}:06.000`);
    await page.keyboard.press("2");
    await eventually(() => page.locator("#sessions .list button").allTextContents(),
      [`ada ✗ 2 crashescom.example.shop 1.42026-01-02 ${hour}:00 · 6.0 s · 7 rowsS-ONE`]);
    await page.locator("#session-outline", {hasText: `2026-01-02 ${hour}:00.000 ${zone}`}).waitFor();
  }
  for (const key of "24") {
    await page.keyboard.press(key);
    await page.getByText("The protocol fixes “Apple” and “iOS”").filter({visible: true}).waitFor();
  }
  await page.keyboard.press("2");
  await page.locator(".dot[tabindex='0']").focus();
  for (const key of ["ArrowRight", "ArrowRight", "Enter"]) await page.keyboard.press(key);
  await page.locator("#panel h2", {hasText: "(empty)"}).waitFor();
  await page.reload();
  await page.locator("#panel", {hasText: "2026-01-02 19:00:02.000 Asia/Tokyo"}).waitFor();
});

pageTest("The address is followed back and forward", {}, async (page, collector) => {
  await sendCrashes(collector);
  await countRows(page, NAMES.length);
  const search = page.getByLabel("Search all fields");
  const title = page.locator("#panel:not([hidden]) h2");
  const state = async () => [await column(page, "name"), await title.allTextContents()];
  const steps = [
    [["SIGSEGV 2", "SIGSEGV 1"], [], () => page.locator("#legend").getByRole("button", {name: "Crashes"}).click()],
    [["SIGSEGV 1", "SIGSEGV 2"], [], () => page.getByRole("button", {name: "Name", exact: true}).click()],
    [["SIGSEGV 1", "SIGSEGV 2"], ["SIGSEGV 1"], () => page.locator("#spacer").getByText("SIGSEGV 1").click()],
    [[], ["SIGSEGV 1"], () => search.pressSequentially("none of it")],
  ];
  for (const [names, open, act] of steps) {
    await act();
    await eventually(state, [names, open]);
  }
  await page.reload();
  await eventually(state, [[], ["SIGSEGV 1"]]);
  for (const [names, open] of steps.slice(0, -1).reverse()) {
    await page.goBack();
    await eventually(state, [names, open]);
  }
  for (const _ of steps.slice(1)) await page.goForward();
  await page.getByText("No row passes the filters").waitFor();
  await page.getByRole("button", {name: "Clear the filters"}).click();
  await countRows(page, NAMES.length);
});
