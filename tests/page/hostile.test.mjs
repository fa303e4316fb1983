import assert from "node:assert/strict";
import {pageTest} from "./page_test.mjs";
import {column, countRows, event, eventually, send, session} from "./support.mjs";

const HOSTILE = ["<img src=x onerror=\"document.title='taken'\"><b>bold</b>", "\"'`); document.title='taken'; //",
  "</script><script>document.title='taken'</script>", "&lt;b&gt; &amp;quot; &#x202e;",
  "javascript:document.title='taken'", "${document.title='taken'} {{7*7}}", "__proto__"];

pageTest("What an application sends is shown as text", {}, async (page, collector) => {
  const [markup, quotes] = HOSTILE;
  await send(collector, {
    Sessions: [{...session(1, markup, quotes), Model: markup, BundleID: quotes}],
    Events: HOSTILE.map((text, i) => event(i + 1, markup, text, {[text]: text, list: [text]})),
  });
  await countRows(page, HOSTILE.length + 1);
  assert.deepEqual(new Set(await column(page, "name")), new Set([...HOSTILE, quotes]));
  await page.keyboard.press("ArrowDown");
  await page.keyboard.press("Enter");
  for (const _ of HOSTILE) {
    for (const branch of await page.locator("#panel summary").all()) await branch.click();
    await page.keyboard.press("ArrowDown");
  }
  for (const key of ["Escape", ..."34562"]) await page.keyboard.press(key);
  await page.locator("#sessions dd", {hasText: quotes}).first().waitFor();
  assert.equal(await page.title(), "Marbleway collector");
  assert.equal(await page.locator("img, b b, a[href^=javascript], script:nth-of-type(2)").count(), 0);
});

pageTest("A panel shows trees, cuts long texts, names controls", {}, async (page, collector) => {
  const long = "<i>long</i> ".repeat(90000), EventName = "safe\u202egpj.exe\u2066\u0007";
  const EventAttributes = '{"Value":12.50,"big":12345678901234567890,"tags":["a",{"deep":null}],' +
    '"many":[0,1,2,3,4,5,6,7,8,9,"ten"]}';
  await send(collector, {Events: [{...event(1, "S", "Tree"), EventAttributes},
    {...event(2, "S", EventName), EventAttributes: long}]});
  const field = (name) => page.locator("#panel .field", {hasText: name}), attributes = field("EventAttributes");
  await page.locator("#spacer").getByText("safeU+202Egpj.exeU+2066U+0007").click();
  assert.deepEqual(await field("EventName").locator(".unseen").allTextContents(), ["U+202E", "U+2066", "U+0007"]);
  assert.ok((await attributes.locator(".value").textContent()).length < 50000);
  await page.getByRole("button", {name: /Show all 1,080,000 characters/}).click();
  assert.ok((await attributes.locator(".value").textContent()) === long);
  await page.locator("#spacer").getByText("Tree").click();
  const tree = 'Value: 12.50big: 12345678901234567890tags [2]0: "a"1 {1}deep: nullmany [11]';
  await eventually(() => attributes.locator(".tree").textContent(), tree);
  await attributes.locator("summary", {hasText: "many"}).click();
  await attributes.getByText('10: "ten"').waitFor();
  await attributes.getByRole("button", {name: "Raw"}).click();
  assert.equal(await attributes.locator(".value").textContent(), EventAttributes);
});
