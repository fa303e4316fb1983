import assert from "node:assert/strict";
import {pageTest} from "./page_test.mjs";
import {column, countRows, event, eventually, post, screen, send, session, useApplication, user}
  from "./support.mjs";

/** Two sessions of two devices, for two tokens. */
async function fillShop(page, collector) {
  await send(collector, {Sessions: [session(1, "S-ONE", "DEVICE-A")], Users: [user(1, "S-ONE", "ada")],
    Events: [event(1, "S-ONE", "Purchase", {Value: 12.5, currency: "EUR"}), event(2, "S-ONE", "Refund")],
    ScreenViews: [screen(1, "S-ONE", "Home")]});
  const two = {Sessions: [session(1, "S-TWO", "DEVICE-B")], Events: [event(1, "S-TWO", "Purchase")]};
  await send(collector, two, "other");
  await countRows(page, SHOP);
}
const SHOP = 7;  // rows
const nameOf = async (page, row) => (await column(page, "name"))[row];

pageTest("An application's first rows end the empty page", {}, async (page, collector) => {
  const text = await page.locator("#empty pre").textContent();
  assert.match(text, new RegExp(`developmentURL = "${collector.url}".*initMarbleway\\("(demo|other)"`, "s"));
  const lamps = (texts) => eventually(() => page.locator(".lamps li").allTextContents(), texts);
  await post(collector, "init", {OS: "iOS", BundleID: "com.example"}, "typo");
  await lamps(['✗ Handshake: refused with 401, token "typo": header "mrbw-project-token" holds an unknown token',
    "○ Session: waiting", "○ First batch: waiting"]);
  await post(collector, "init", {OS: "iOS", BundleID: "com.example"});
  await lamps(["● Handshake: seen", "○ Session: waiting", "○ First batch: waiting"]);
  await useApplication(collector);
  await page.locator("#spacer").getByText("To-do Added").waitFor();
  assert.ok(await page.locator("#empty").isHidden());
});

pageTest("Filters, search, pause and clear leave what they name", {}, async (page, collector) => {
  await fillShop(page, collector);
  const bySession = page.getByLabel("Filter by session"), search = page.getByLabel("Search all fields");
  await bySession.locator("option", {hasText: "S-TWO"}).waitFor({state: "attached"});
  const steps = [
    [3, () => page.locator("#legend").getByRole("button", {name: /Events/}).click()],
    [1, () => page.getByLabel("Filter by token").selectOption("other")],
    [2, () => page.locator("#legend [aria-pressed=true]").click()],
    [0, () => bySession.selectOption("S-ONE")],
    [5, () => page.getByLabel("Filter by token").selectOption("")],
    [1, () => search.fill("CURRENCY")],
    [0, () => search.fill(".*")],
    [5, () => search.fill("ada")],
    [1, () => page.locator("#chart rect[data-table=ScreenViews]").last().click()],
  ];
  for (const [rows, act] of steps) {
    await act();
    await assert.doesNotReject(countRows(page, rows), act.toString());
  }
  await page.reload();
  await countRows(page, 1);
  await page.goto(`${collector.origin}/#live`);
  await countRows(page, SHOP);
  await page.keyboard.press("p");
  await send(collector, {Events: [event(3, "S-ONE", "Held")]});
  await page.getByRole("button", {name: "Resume (1 waiting)"}).click();
  await eventually(() => nameOf(page, 0), "Held");
  await page.getByRole("button", {name: "Clear"}).click();
  await countRows(page, 0);
});

// What the browser says of a collector that is not there.
const GONE = {excused: /ERR_(CONNECTION_REFUSED|CONNECTION_RESET|EMPTY_RESPONSE|INCOMPLETE_CHUNKED_ENCODING)/};

pageTest("A page that lost its collector catches up", GONE, async (page, collector) => {
  await fillShop(page, collector);
  await page.evaluate(() => { window.sameDocument = true; });
  await collector.stop();
  await page.getByText("○ not connected").waitFor();
  await collector.start(new URL(collector.url).port);
  await send(collector, {Events: [event(3, "S-ONE", "Missed")]});
  await eventually(() => nameOf(page, 0), "Missed");
  await countRows(page, SHOP + 1);
  await fetch(`${collector.origin}/api/reset`, {method: "POST"});
  await page.getByText("Nothing has arrived yet").waitFor();
  assert.ok(await page.evaluate(() => window.sameDocument));
});

pageTest("What went wrong is marked and counted", {}, async (page, collector) => {
  await send(collector, {Sessions: [session(1, "S-ONE", "DEVICE-A")], Events: [event(1, "S-ONE", "First")]});
  for (const [rows, id] of [[3, 2], [4, 2], [5, 5]]) {
    await send(collector, {Events: [event(id, "S-ONE", "Later")]});
    await countRows(page, rows);
  }
  await eventually(() => column(page, "state"), ["⚠ after gap", "↻ again ×2", "new", "new", "new"]);
  assert.equal(await post(collector, "batch", {}), 400);
  await page.locator("#refused", {hasText: "✗ Batch refused with 400"}).waitFor();
  await page.getByRole("tab", {name: "Batches ✗ 1"}).waitFor();
  for (const _ of "12") await post(collector, "init", {}, "typo");
  await page.getByRole("tab", {name: "Handshakes ✗ 2"}).waitFor();
  await page.keyboard.press("6");
  await eventually(() => page.locator("#health .figures .card").allTextContents(), ["5rows arrived",
    "1↻ rows sent again", "1⚠ gaps in ids", "1✗ invalid batches", "2✗ refused handshakes"]);
});

pageTest("Keys reach everything in 400 pixels", {viewport: {width: 400, height: 800}}, async (page, collector) => {
  await fillShop(page, collector);
  const long = "x".repeat(5000), names = await column(page, "name"), title = page.locator("#panel h2");
  const press = async (...keys) => { for (const key of keys) await page.keyboard.press(key); };
  await press("ArrowDown", "ArrowDown", "Enter");
  assert.equal(await title.textContent(), names[1]);
  await press("ArrowDown");
  assert.equal(await title.textContent(), names[2]);
  await press("Escape", "/", ..."refund");
  await eventually(() => column(page, "name"), ["Refund"]);
  await press("Escape");
  await eventually(() => column(page, "name"), names);
  assert.ok((await page.locator("header").boundingBox()).height < 48);
  const boxes = page.locator("html, [role=tabpanel], #panel");
  await send(collector, {Events: [event(3, "S-ONE", long, {[long]: long})]});
  await page.locator("#spacer").getByText("xxx").first().click();
  for (const key of "123456") {
    await press(key);
    assert.equal(await page.locator("[role=tabpanel]:not([hidden])").count(), 1);
    assert.equal(await page.evaluate(() => getComputedStyle(document.activeElement).outlineStyle), "solid");
    assert.equal(Math.max(...await boxes.evaluateAll((all) => all.map((box) => box.scrollWidth))), 400, key);
  }
  await press("?");
  await page.getByText("the views").waitFor();
  await press("Escape", "2", "Tab", "Tab", "Tab", "ArrowDown", "Enter");
  assert.equal(await page.locator("#sessions h2").textContent(), "S-TWO");
  await page.getByRole("button", {name: "Show its rows in Live"}).click();
  await countRows(page, 2);
});

pageTest("Sessions, batches and handshakes show their contents", {}, async (page, collector) => {
  await useApplication(collector);
  const texts = [["4", "#handshakes", ["Handshake #1", "BundleID", "Data"]],
    ["2", "#sessions", ["com.example.todo", "Time line", "UserAttributes"]],
    ["3", "#batches", ["Batch #", "✓ Nothing found", "Events"]]];
  for (const [key, view, words] of texts) {
    await page.keyboard.press(key);
    for (const word of words) await page.locator(view).getByText(word).filter({visible: true}).first().waitFor();
  }
  await page.getByRole("button", {name: "Show the raw body"}).click();
  await page.locator("#batches pre", {hasText: '{"BatchData":{'}).waitFor();
  await page.keyboard.press("2");
  const id = await page.locator("#sessions h2").textContent();
  await send(collector, {Events: [event(99, id, "Late in the session")]});
  await page.getByRole("button", {name: "Late in the session", exact: true}).waitFor();
});
