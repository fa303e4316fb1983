#include "tools/collector/row_csv.h"

#include <string_view>

#include "tools/common/csv.h"

namespace collector {
namespace {

constexpr std::string_view kHead =
    "n,received,table,name,session,user,device,token,time,lagMs,state,batch,times";

std::string textsOf(const Row& row) {
  return tools::jsonText([&](tools::JsonWriter& writer) {
    writer.StartObject();
    for (std::size_t i = 0; i < row.texts.size(); ++i) {
      tools::member(writer, row.kind->keys()[i], row.texts[i]);
    }
    writer.EndObject();
  });
}

}  // namespace

std::string csvHead(const Kind* kind) {
  std::string line(kHead);
  if (kind == nullptr) return line + ",fields\r\n";
  for (const std::string_view key : kind->keys()) line.append(",").append(key);
  return line + "\r\n";
}

std::string csvLine(const Row& row, bool inColumns) {
  std::string line;
  for (const std::string& text :
       {std::to_string(row.n), tools::isoTime(row.received), std::string(row.kind->name()),
        row.name(), row.session, row.user, row.device, row.token, row.time(),
        row.lag ? std::to_string(*row.lag) : std::string(), row.state, std::to_string(row.batch),
        std::to_string(row.times)}) {
    tools::appendCsvField(line, text);
  }
  if (!inColumns) {
    tools::appendCsvField(line, textsOf(row));
  } else {
    for (const std::string& text : row.texts) tools::appendCsvField(line, text);
  }
  return line + "\r\n";
}

}  // namespace collector
