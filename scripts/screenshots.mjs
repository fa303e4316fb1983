// Makes the pictures of the documents: node scripts/screenshots.mjs FOLDER
import {mkdir} from "node:fs/promises";
import {join} from "node:path";
import {browser, event, eventually, screen, send, session, useApplication, user, withCollector, withPage}
  from "../tests/page/support.mjs";

const [folder] = process.argv.slice(2);
const SIZE = {viewport: {width: 1100, height: 640}};

async function fill(collector) {
  const commands = ["login ada Analytical Engines", "add buy milk", "add call the plumber", "list", "done 1", "tip",
                    "search plumber", "remove 1", "order"];
  await useApplication(collector, commands);
  const ID = "7C0E0F5A-9B1D-4C6E-8E0B-52A4E3B1C9D4";
  const purchase = {Value: 12.5, currency: "EUR", basket: [{article: "Notebook", pages: 48}, {article: "Pencil"}]};
  await send(collector, {Sessions: [session(1, ID, "3F1B6C52-0E5D-4A77-9B11-7F0C2D9E8A60")],
    Users: [user(1, ID, "grace")], ScreenViews: [screen(1, ID, "Checkout")],
    Events: [event(1, ID, "Purchase", purchase)]});
  const again = event(2, ID, "Newsletter Opened");
  await send(collector, {Events: [again]});
  await send(collector, {Events: [again]});
  await send(collector, {Events: [event(7, ID, "Wish Granted", {Value: 3})]});
}

async function picture(page, name) {
  await page.mouse.move(0, 639);
  await page.screenshot({path: join(folder, `${name}.png`)});
}

await mkdir(folder, {recursive: true});
await withCollector(async (collector) => {
  await fill(collector);
  await withPage(collector, SIZE, async (page) => {
    await page.locator("#spacer").getByText("Purchase").click();
    await page.locator("#panel summary", {hasText: "1 {1}"}).waitFor();
    await picture(page, "live");
    await page.keyboard.press("Escape");
    await page.keyboard.press("2");
    await page.locator("#sessions .list button").last().click();
    await page.locator(".lanes circle").first().waitFor();
    await picture(page, "session");
    await page.keyboard.press("5");
    await page.getByRole("radio", {name: /^Batches/}).check();
    await page.getByRole("radio", {name: /^500/}).check();
    await page.getByLabel("Session timeout").fill("0");
    await page.getByLabel("Session timeout").press("Enter");
    await page.locator("#timeout-warning").waitFor();
    await picture(page, "behaviour");
    await page.getByRole("radio", {name: /^None/}).check();
    await eventually(() => page.locator("#fault").isHidden(), true);
  });
  await withPage(collector, {...SIZE, colorScheme: "dark"}, (page) => picture(page, "dark"));
});
await browser.close();
