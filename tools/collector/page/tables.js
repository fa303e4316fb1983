// The tables and their colours.

const TABLES = ["Events", "ScreenViews", "Sessions", "Users", "UserAttributes", "Companies", "CompanyAttributes",
                "Errors", "Crashes", "Ads", "DeepLinks", "Messages", "NetworkRequests", "CPUUsage", "MEMUsage",
                "BatteryUsage"];
// Told apart by people who see few colours; the second eight tables are striped besides.
const COLOURS = ["#0072b2", "#e69f00", "#009e73", "#cc79a7", "#56b4e9", "#d55e00", "#b8a800", "#7f7f7f"];
const placeOf = new Map(TABLES.map((table, place) => [table, place]));

function fillOf(table) {
  const place = placeOf.get(table) ?? 7;
  return place < COLOURS.length ? COLOURS[place] : `url(#stripe${place})`;
}
/** The striped fills, once in the document. */
function stripes() {
  const pattern = (place) => svg("pattern",
    {id: `stripe${place}`, width: 4, height: 4, patternUnits: "userSpaceOnUse", patternTransform: "rotate(45)"},
    svg("rect", {width: 4, height: 4, fill: COLOURS[place % COLOURS.length]}),
    svg("rect", {width: 1.5, height: 4, fill: "#fff"}));
  return svg("svg", {width: 0, height: 0, "aria-hidden": "true"},
    svg("defs", {}, TABLES.map((_, place) => (place < COLOURS.length ? null : pattern(place)))));
}
const swatch = (table) => svg("svg", {class: "swatch", viewBox: "0 0 12 12", "aria-hidden": "true"},
  svg("rect", {width: 12, height: 12, fill: fillOf(table)}));
