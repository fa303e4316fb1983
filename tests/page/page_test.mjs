import {after, test} from "node:test";
import {browser, withCollector, withPage} from "./support.mjs";

after(() => browser.close());
/** A test with a collector of its own and the page of it: `act(page, collector)`. */
export const pageTest = (name, options, act) =>
  test(name, () => withCollector((collector) => withPage(collector, options, (page) => act(page, collector))));
