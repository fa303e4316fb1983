import assert from "node:assert/strict";
import {pageTest} from "./page_test.mjs";
import {event, eventually, namesOf, rowsOf, screen, send, session, useApplication, user, withFolder}
  from "./support.mjs";

/** A day in a shop: two sessions of two devices, for two tokens. */
async function fillShop(collector) {
  await send(collector, {Sessions: [session(1, "S-ONE", "DEVICE-A")], Users: [user(1, "S-ONE", "ada")],
    Events: [event(1, "S-ONE", "Purchase", {Value: 12.5, currency: "EUR"}), event(2, "S-ONE", "Refund")],
    ScreenViews: [screen(1, "S-ONE", "Home")]});
  const two = {Sessions: [session(1, "S-TWO", "DEVICE-B")], Events: [event(1, "S-TWO", "Purchase", {Value: 3})]};
  await send(collector, two, "other");
}
const SHOP = 7;  // rows

pageTest("An application's first rows end the empty page", {}, async (page, collector) => {
  const text = await page.locator("#empty pre").textContent();
  assert.match(text, new RegExp(`developmentURL = "${collector.url}"`));
  assert.match(text, /initMarbleway\("(demo|other)"/);
  const lamps = () => page.locator(".lamps li").allTextContents();
  assert.deepEqual(await lamps(), ["○ Handshake: waiting", "○ Session: waiting", "○ First batch: waiting"]);
  await fetch(`${collector.url}mobile/init`, {method: "POST", body: '{"OS":"iOS","BundleID":"com.example"}',
    headers: {"Accept": "application/json", "Content-Type": "application/json", "mrbw-project-token": "demo"}});
  await eventually(async () => (await lamps())[0], "● Handshake: seen");
  await withFolder((folder) => useApplication(collector, folder));
  await page.locator("#spacer .row").first().waitFor();
  assert.ok((await namesOf(page)).includes("To-do Added"));
  assert.ok(await page.locator("#empty").isHidden());
});

pageTest("Rows appear within a second, without a reload", {}, async (page, collector) => {
  await page.evaluate(() => { window.sameDocument = true; });
  await fillShop(collector);
  await eventually(() => namesOf(page).then((names) => names.length), SHOP);
  const began = Date.now();
  await send(collector, {Events: [event(3, "S-ONE", "Late")]});
  await page.locator("#spacer").getByText("Late", {exact: true}).waitFor();
  const took = Date.now() - began;
  console.log(`a row was on the page ${took} ms after its batch was begun`);
  assert.ok(took < 1000, `${took} ms`);
  const [newest] = await rowsOf(page);
  assert.deepEqual([newest.table, newest.name, newest.session, newest.state], ["Events", "Late", "S-ONE", "new"]);
  assert.ok(await page.evaluate(() => window.sameDocument));
});

pageTest("Filters, search, pause and clear leave what they name", {}, async (page, collector) => {
  await fillShop(collector);
  const count = (expected) => eventually(() => namesOf(page).then((names) => names.length), expected);
  await count(SHOP);
  const legend = page.locator("#legend").getByRole("button", {name: /Events/});
  await page.getByLabel("Filter by session").locator("option", {hasText: "S-TWO"}).waitFor({state: "attached"});
  const steps = [
    ["a table", () => legend.click(), 3],
    ["a table and a token", () => page.getByLabel("Filter by token").selectOption("other"), 1],
    ["a token", () => legend.click(), 2],
    ["a session", async () => {
      await page.getByLabel("Filter by token").selectOption("");
      await page.getByLabel("Filter by session").selectOption("S-ONE");
    }, 5],
    ["every session", () => page.getByLabel("Filter by session").selectOption(""), SHOP],
    ["a word in an attribute, in capitals", () => page.getByLabel("Search all fields").fill("CURRENCY"), 1],
    ["what is no pattern", () => page.getByLabel("Search all fields").fill(".*"), 0],
    ["a session's user", () => page.getByLabel("Search all fields").fill("ada"), 5],
    ["everything", () => page.getByLabel("Search all fields").fill(""), SHOP],
    ["a bar of the chart", () => page.locator("#chart rect[data-table=ScreenViews]").last().click(), 1],
    ["a bar no more", async () => {
      await page.locator("#by-minute").click();
      await page.locator("#legend [aria-pressed=true]").click();
    }, SHOP],
  ];
  for (const [name, act, expected] of steps) {
    await act();
    await assert.doesNotReject(count(expected), name);
  }
  await page.getByRole("button", {name: "Pause"}).click();
  await send(collector, {Events: [event(3, "S-ONE", "Held")]});
  await page.getByRole("button", {name: "Resume (1 waiting)"}).waitFor();
  assert.ok(!(await namesOf(page)).includes("Held"));
  await page.getByRole("button", {name: "Resume"}).click();
  await count(SHOP + 1);
  await page.getByRole("button", {name: "Clear"}).click();
  await count(0);
  await send(collector, {Events: [event(4, "S-ONE", "After")]});
  await count(1);
});

// What the browser says of a collector that is not there.
const GONE = {excused: /ERR_(CONNECTION_REFUSED|CONNECTION_RESET|EMPTY_RESPONSE|INCOMPLETE_CHUNKED_ENCODING)/};

pageTest("A page that lost its collector catches up, and a reset empties it", GONE, async (page, collector) => {
  await fillShop(collector);
  await eventually(() => namesOf(page).then((names) => names.length), SHOP);
  await page.evaluate(() => { window.sameDocument = true; });
  await collector.stop();
  await page.getByText("○ not connected").waitFor();
  await collector.start();
  await send(collector, {Events: [event(3, "S-ONE", "Missed")]});
  await eventually(async () => (await namesOf(page))[0], "Missed");
  assert.equal((await namesOf(page)).length, SHOP + 1);
  await fetch(`${collector.origin}/api/reset`, {method: "POST"});
  await page.getByText("Nothing has arrived yet").waitFor();
  await send(collector, {Events: [event(4, "S-ONE", "Anew")]});
  await eventually(() => namesOf(page), ["Anew"]);
  assert.ok(await page.evaluate(() => window.sameDocument));
});

pageTest("A batch that comes again, and a number left out, show as such", {}, async (page, collector) => {
  await send(collector, {Sessions: [session(1, "S-ONE", "DEVICE-A")], Events: [event(1, "S-ONE", "First")]});
  const again = event(2, "S-ONE", "Twice");
  for (const rows of [[again], [again], [event(5, "S-ONE", "Behind a gap")]]) await send(collector, {Events: rows});
  const stateOf = async (name) => (await rowsOf(page)).find((row) => row.name === name)?.state;
  await eventually(() => stateOf("Twice"), "↻ again ×2");
  await eventually(() => stateOf("Behind a gap"), "⚠ after gap");
  await page.keyboard.press("6");
  await eventually(() => page.locator("#health .figures .card").allTextContents(),
    ["5rows arrived", "1↻ rows sent again", "1⚠ gaps in ids", "0✗ invalid batches"]);
});

pageTest("A row's panel has its fields in order, JSON as a tree and raw", {}, async (page, collector) => {
  await send(collector, {Sessions: [session(1, "S-ONE", "DEVICE-A")]});
  const attributes = '{"Value":12.50,"big":12345678901234567890,"tags":["a",{"deep":null}],' +
    '"many":[0,1,2,3,4,5,6,7,8,9,"ten"]}';
  const row = {...event(1, "S-ONE", "Purchase"), EventAttributes: attributes};
  await send(collector, {Events: [row]});
  await page.locator("#spacer").getByText("Purchase").click();
  const panel = page.locator("#panel");
  const names = await panel.locator(".field b").allTextContents();
  assert.deepEqual(names, ["id", "SessionID", "EventName", "EventAttributes", "UTCTimeStamp"]);
  const tree = panel.locator(".tree");
  await tree.getByText("deep: null").waitFor();
  const text = 'Value: 12.50big: 12345678901234567890tags [2]0: "a"1 {1}deep: nullmany [11]';
  assert.equal(await tree.textContent(), text);
  await tree.locator("summary", {hasText: "many"}).click();
  await tree.getByText('10: "ten"').waitFor();
  await panel.getByRole("button", {name: "Raw"}).click();
  const raw = panel.locator(".field", {hasText: "EventAttributes"}).locator(".value");
  assert.equal(await raw.textContent(), attributes);
});

pageTest("Everything is reached by keys", {}, async (page, collector) => {
  await fillShop(collector);
  await eventually(() => namesOf(page).then((names) => names.length), SHOP);
  const names = await namesOf(page);
  const panel = page.locator("#panel");
  const press = async (...keys) => { for (const key of keys) await page.keyboard.press(key); };
  await press("ArrowDown", "ArrowDown", "Enter");
  assert.equal(await panel.locator("h2").textContent(), names[1]);
  await press("ArrowDown");
  assert.equal(await panel.locator("h2").textContent(), names[2]);
  const active = await page.locator("#grid").getAttribute("aria-activedescendant");
  assert.equal(await page.locator(`#${active}`).getAttribute("aria-selected"), "true");
  await press("Escape");
  assert.ok(await panel.isHidden());
  await press("/", ..."refund");
  await eventually(() => namesOf(page), ["Refund"]);
  await press("Escape", "p");
  await page.getByRole("button", {name: /Resume/}).waitFor();
  await eventually(() => namesOf(page), names);
  const views = await page.getByRole("tab").evaluateAll((tabs) => tabs.map((tab) => tab.getAttribute("aria-controls")));
  for (const [place, view] of views.entries()) {
    await press(String(place + 1));
    assert.ok(await page.locator(`#${view}`).isVisible(), view);
    const outline = await page.evaluate(() => getComputedStyle(document.activeElement).outlineStyle);
    assert.equal(outline, "solid", `focus is seen in ${view}`);
  }
  await press("2", "Tab", "ArrowDown", "Enter");
  assert.equal(await page.locator("#sessions h2").textContent(), "S-ONE");
});

pageTest("Sessions, batches and handshakes tell what came", {}, async (page, collector) => {
  await withFolder((folder) => useApplication(collector, folder));
  const texts = [
    ["2", "#sessions", ["com.example.todo", "Time line", "UserAttributes"]],
    ["3", "#batches", ["Batch #1", "✓ Nothing found", "Events"]],
    ["4", "#handshakes", ["Handshake #1", "BundleID", "Data"]],
  ];
  for (const [key, view, words] of texts) {
    await page.keyboard.press(key);
    for (const word of words) await page.locator(view).getByText(word).filter({visible: true}).first().waitFor();
  }
  await page.keyboard.press("2");
  const id = await page.locator("#sessions h2").textContent();
  const before = parseInt(await page.locator("#session-span").textContent());
  await send(collector, {Events: [event(99, id, "Late in the session")]});
  await page.getByRole("button", {name: "Late in the session"}).waitFor();
  await eventually(async () => parseInt(await page.locator("#session-span").textContent()), before + 1);
  await page.keyboard.press("3");
  await page.getByRole("button", {name: /^#1/}).click();
  await page.getByRole("button", {name: "Show the raw body"}).click();
  await page.locator("#batches pre", {hasText: '{"BatchData":{'}).waitFor();
});

pageTest("400 pixels are enough", {viewport: {width: 400, height: 800}}, async (page, collector) => {
  const overhang = () => page.evaluate(() => {
    const boxes = document.querySelectorAll("html, [role=tabpanel]:not([hidden]), #panel:not([hidden])");
    return Math.max(...[...boxes].map((box) => box.scrollWidth));
  });
  assert.equal(await overhang(), 400, "empty");
  const id = "S".repeat(36);
  await send(collector, {Sessions: [session(1, id, "D".repeat(36))], Events: [event(1, id, "x".repeat(5000))]});
  await page.locator("#spacer .row").first().waitFor();
  for (const key of "123456") {
    await page.keyboard.press(key);
    assert.equal(await overhang(), 400, `view ${key}`);
  }
  await page.keyboard.press("1");
  await page.locator("#spacer .row").first().click();
  assert.equal(await overhang(), 400, "panel");
});
