// The batch document from columns of any bytes and kinds.

#include "Marbleway/upload/document.h"

#include <fuzzer/FuzzedDataProvider.h>

#include "fuzz/setting.h"
#include "fuzz/strict_json.h"

namespace {

using namespace marbleway;

const Table& anyTable(FuzzedDataProvider& bytes) {
  return kTables[bytes.ConsumeIntegralInRange<std::size_t>(0, std::size(kTables) - 1)];
}

/// A column of any bytes, as SQL makes it of text or of a blob.
struct Column {
  std::string sql;
  std::string text;  // as the document has to hold it

  explicit Column(FuzzedDataProvider& bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    const std::string content = bytes.ConsumeRandomLengthString(200);
    sql = bytes.ConsumeBool() ? "CAST(x'" : "(x'";
    for (const char each : content) {
      const auto byte = static_cast<unsigned char>(each);
      sql.append({kDigits[byte >> 4U], kDigits[byte & 0xFU]});
    }
    sql.append(sql.starts_with('C') ? "' AS TEXT)" : "')");
    text = fuzz::withReplacements(content);
  }
};

void addRow(FuzzedDataProvider& bytes, Document& document, const Table& table,
            std::vector<std::string>& texts) {
  const auto id = bytes.ConsumeIntegral<int>();
  std::string sql = "SELECT " + std::to_string(id);
  texts.insert(texts.end(), {"id", std::to_string(id)});
  for (const std::string_view key : table.keys) {
    const Column column(bytes);
    sql.append(", ").append(column.sql);
    texts.insert(texts.end(), {std::string(key), column.text});
  }
  Statement row(table.store, sql.c_str());
  fuzz::require(row.step(), "the row is there");
  document.addRow(table, row);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::settingWithStores();
  FuzzedDataProvider bytes(data, size);
  Document document;
  std::vector<std::string> texts{"BatchData"};
  for (int arrays = bytes.ConsumeIntegralInRange(1, 3); arrays > 0; --arrays) {
    const Table& table = anyTable(bytes);
    document.beginArray(table);
    texts.emplace_back(table.arrayKey);
    for (int rows = bytes.ConsumeIntegralInRange(0, 3); rows > 0; --rows) {
      addRow(bytes, document, table, texts);
    }
    document.endArray();
  }
  const platform::Buffer written = document.take();
  fuzz::require(fuzz::isUTF8(written.view()), "the document is UTF-8");
  const auto strict = fuzz::readStrictly(written.view());
  fuzz::require(strict.has_value(), "the document is JSON");
  fuzz::require(strict->texts == texts, "every key and column is there, in order");
  return 0;
}
