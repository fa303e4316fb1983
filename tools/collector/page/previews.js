// What a row says in one line: its name and a preview of the rest.

/** The fields that stand beside the name. */
const PREVIEWS = {
  Events: ["EventAttributes"], ScreenViews: ["ScreenAttributes"], Sessions: ["AppVersion", "Model"], Users: ["TypeID"],
  UserAttributes: ["AttributeValue"], CompanyAttributes: ["AttributeValue"], Errors: ["ErrorMessage", "ErrorDetails"],
  Ads: ["InteractionType", "AdDetails", "ConversionDetails"], DeepLinks: ["OperatingSystem"], Messages: ["UserID"],
  NetworkRequests: ["RequestHTTPMethod", "ResponseStatusCode"], CPUUsage: ["CPUUnused"], MEMUsage: ["MEMUnused"],
  BatteryUsage: ["BatteryUnused"],
};

const fieldText = (fields, name) => fields.find(([key]) => key === name)?.[1] ?? "";
const isFailure = ({table}) => table === "Errors" || table === "Crashes";

function previewOf(row) {
  if (row.table === "Crashes") return crashText(row);
  return (PREVIEWS[row.table] ?? []).map((name) => fieldText(row.fields, name)).filter((text) => text !== "")
    .map((text) => clip(text, 200)).join(" · ");
}

/** Shows a row's name in `node`, which it may have shown another's in. */
function showName(node, row) {
  node.textContent = row.name === "" ? "(empty)" : visible(clip(row.name, 200));
  node.classList.toggle("bad", isFailure(row));
  node.classList.toggle("none", row.name === "");
}

/** Why a profile says "Apple" and "iOS", if it does. */
const fixedNote = (fields) => (fieldText(fields, "OS") === "iOS" ? el("p", {class: "soft apart"},
  "The protocol fixes “Apple” and “iOS”: every device sends them, whatever its make and system.") : "");
