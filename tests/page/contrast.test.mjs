import assert from "node:assert/strict";
import {pageTest} from "./page_test.mjs";

/** The contrast of two colours as browsers write them. */
function contrast(...colours) {
  const [low, high] = colours.map((colour) => colour.match(/[\d.]+/g).slice(0, 3)
    .map((part) => (part / 255 <= 0.04045 ? part / 255 / 12.92 : ((part / 255 + 0.055) / 1.055) ** 2.4))
    .reduce((sum, part, i) => sum + part * [0.2126, 0.7152, 0.0722][i], 0.05)).sort((a, b) => a - b);
  return high / low;
}

for (const colorScheme of ["light", "dark"]) {
  pageTest(`Borders and swatches stand out when ${colorScheme}`, {colorScheme}, async (page) => {
    const all = (names) => page.evaluate((them) => them.map((name) => {
      document.body.style.color = `var(--${name})`;
      return getComputedStyle(document.body).color;
    }), names);
    const edge = await page.locator("#help").evaluate((button) => getComputedStyle(button).borderTopColor);
    const colours = [edge, ...await all([..."01234567"].map((i) => `table${i}`))];
    const backgrounds = await all(["page", "card", "hover", "chosen"]);
    const low = colours.flatMap((colour) => backgrounds.map((back) => [colour, back, contrast(colour, back)]));
    assert.deepEqual(low.filter(([, , ratio]) => ratio < 3), []);
  });
}
