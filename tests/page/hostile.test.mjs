import assert from "node:assert/strict";
import {pageTest} from "./page_test.mjs";
import {event, eventually, namesOf, send, session} from "./support.mjs";

const HOSTILE = {
  markup: "<img src=x onerror=\"document.title='taken'\"><b>bold</b>",
  script: "</script><script>document.title='taken'</script>",
  quotes: "\"'`); document.title='taken'; //",
  entities: "&lt;b&gt; &amp;quot; &#x202e;",
  template: "${document.title='taken'} {{7*7}}",
  link: "javascript:document.title='taken'",
  prototype: "__proto__",
};

pageTest("What an application sends is shown as text, wherever it stands", {}, async (page, collector) => {
  const hostile = Object.values(HOSTILE);
  await send(collector, {
    Sessions: [{...session(1, HOSTILE.markup, HOSTILE.script), Model: HOSTILE.markup, BundleID: HOSTILE.quotes}],
    Events: hostile.map((text, i) => event(i + 1, HOSTILE.markup, text, {[text]: text, list: [text]})),
  });
  await eventually(async () => (await namesOf(page)).length, hostile.length + 1);
  const names = await namesOf(page);
  for (const text of hostile) assert.ok(names.includes(text), text);
  await page.keyboard.press("ArrowDown");
  await page.keyboard.press("Enter");
  for (let i = 0; i < hostile.length; ++i) {
    for (const branch of await page.locator("#panel summary").all()) await branch.click();
    await page.keyboard.press("ArrowDown");
  }
  for (const key of "23456") {
    await page.keyboard.press("Escape");
    await page.keyboard.press(key);
    await page.locator("[role=tabpanel]:not([hidden])").waitFor();
  }
  await page.keyboard.press("2");
  await page.locator("#sessions dd", {hasText: HOSTILE.quotes}).waitFor();
  assert.equal(await page.title(), "Marbleway collector");
  assert.equal(await page.locator("img, b b, a[href^=javascript], script:nth-of-type(2)").count(), 0);
  assert.equal(await page.evaluate(() => Object.keys(Object.prototype).length), 0);
});

pageTest("Marks that turn a line around are shown by their numbers", {}, async (page, collector) => {
  await send(collector, {Sessions: [session(1, "S", "D")], Events: [event(1, "S", "safe\u202egpj.exe\u2066\u0007")]});
  await eventually(async () => (await namesOf(page)).includes("safeU+202Egpj.exeU+2066U+0007"), true);
  await page.locator("#spacer").getByText("gpj.exe").click();
  const marks = page.locator("#panel .field", {hasText: "EventName"}).locator(".unseen");
  assert.deepEqual(await marks.allTextContents(), ["U+202E", "U+2066", "U+0007"]);
});

pageTest("A text of a megabyte is cut until all of it is asked for", {}, async (page, collector) => {
  const long = "<i>long</i> ".repeat(90000);
  const row = {...event(1, "S", "Long"), EventAttributes: long};
  await send(collector, {Sessions: [session(1, "S", "D")], Events: [row]});
  await page.locator("#spacer").getByText("Long").click();
  const value = page.locator("#panel .field", {hasText: "EventAttributes"}).locator(".value");
  assert.ok((await value.textContent()).length < 50000);
  await page.getByRole("button", {name: /Show all 1,080,000 characters/}).click();
  assert.ok((await value.textContent()) === long);
});
