// The batch document from columns of any bytes and kinds.

#include "Marbleway/upload/document.h"

#include <fuzzer/FuzzedDataProvider.h>

#include "Marbleway/store/store.h"
#include "fuzz/setting.h"

using namespace marbleway;
using fuzz::require;

namespace {

void addRow(FuzzedDataProvider& bytes, Document& document, const Table& table,
            std::vector<std::string>& texts) {
  const std::string id = std::to_string(bytes.ConsumeIntegral<int>());
  std::string sql = "SELECT " + id;
  texts.insert(texts.end(), {"id", id});
  for (const std::string_view key : table.keys) {
    const std::string content = bytes.ConsumeRandomLengthString(200);
    const char* type = bytes.ConsumeBool() ? " AS TEXT)" : " AS BLOB)";
    sql.append(", CAST(x'").append(fuzz::hexOf(content)).append("'").append(type);
    texts.insert(texts.end(), {std::string(key), fuzz::withReplacements(content)});
  }
  Statement row(pathOf(table.store), sql.c_str());
  require(row.step(), "the row is there");
  document.addRow(row);
}

}  // namespace

void fuzz::run(std::string_view input) {
  FuzzedDataProvider bytes(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
  Document document;
  std::vector<std::string> texts{"BatchData"};
  for (int arrays = bytes.ConsumeIntegralInRange(1, 3); arrays > 0; --arrays) {
    const Table& table =
        kTables[bytes.ConsumeIntegralInRange<std::size_t>(0, std::size(kTables) - 1)];
    document.beginArray(table);
    texts.emplace_back(table.arrayKey);
    for (int rows = bytes.ConsumeIntegralInRange(0, 3); rows > 0; --rows) {
      addRow(bytes, document, table, texts);
    }
    document.endArray();
  }
  require(fuzz::textsIn(document.take().view()) == texts,
          "every key and column is there, in order");
}
