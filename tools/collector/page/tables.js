// The tables and their colours.

const TABLES = ["Events", "ScreenViews", "Sessions", "Users", "UserAttributes", "Companies", "CompanyAttributes",
                "Errors", "Crashes", "Ads", "DeepLinks", "Messages", "NetworkRequests", "CPUUsage", "MEMUsage",
                "BatteryUsage"];
const COLOURS = 8;  // of the style; the second eight tables are striped besides
const colourOf = (place) => `var(--table${place % COLOURS})`;
const placeOf = new Map(TABLES.map((table, place) => [table, place]));

function fillOf(table) {
  const place = placeOf.get(table) ?? 7;
  return place < COLOURS ? colourOf(place) : `url(#stripe${place})`;
}
/** The striped fills, once in the document. */
function stripes() {
  const pattern = (place) => svg("pattern",
    {id: `stripe${place}`, width: 4, height: 4, patternUnits: "userSpaceOnUse", patternTransform: "rotate(45)"},
    svg("rect", {width: 4, height: 4, fill: colourOf(place)}),
    svg("rect", {width: 1.5, height: 4, fill: "var(--card)"}));
  return svg("svg", {width: 0, height: 0, "aria-hidden": "true"},
    svg("defs", {}, TABLES.map((_, place) => (place < COLOURS ? null : pattern(place)))));
}
const swatch = (table) => svg("svg", {class: "swatch", viewBox: "0 0 12 12", "aria-hidden": "true"},
  svg("rect", {width: 12, height: 12, fill: fillOf(table)}));
