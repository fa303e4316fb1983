#include "tools/inspect/applications.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <system_error>

#include "Marbleway/platform/paths.h"
#include "tools/common/json_text.h"
#include "tools/common/text.h"
#include "tools/inspect/inspection.h"

namespace inspect {
namespace {

namespace fs = std::filesystem;

fs::path documentsOfAll() { return marbleway::platform::defaultDataDirectory() / "marbleway"; }

std::string textOf(fs::file_time_type time) {
  const auto since1970 = fs::file_time_type::clock::to_sys(time).time_since_epoch();
  return tools::isoTime(std::chrono::duration_cast<std::chrono::milliseconds>(since1970).count());
}

/// The application whose documents directory this is, if it has a store.
std::optional<Row> rowOf(const fs::path& directory) {
  std::error_code error;
  std::int64_t bytes = 0;
  std::optional<fs::file_time_type> changed;
  for (const char* const name : {marbleway::DBFileName, marbleway::HTTPDBFileName}) {
    const fs::path store = directory / name;
    if (!fs::is_regular_file(store, error)) continue;
    bytes += static_cast<std::int64_t>(fs::file_size(store, error));
    changed = std::max(changed, std::optional(fs::last_write_time(store, error)));
  }
  if (!changed) return std::nullopt;
  return Row{directory.filename().string(), bytes, textOf(*changed), directory.string()};
}

}  // namespace

fs::path directoryOf(const fs::path& name) {
  std::error_code error;
  if (name.has_parent_path() || fs::status(name, error).type() != fs::file_type::not_found) {
    return name;
  }
  fs::path directory = documentsOfAll() / name;
  if (fs::status(directory, error).type() != fs::file_type::not_found) return directory;
  throw ReadError(tools::inQuotes(name.string()) + " is neither a directory here nor one in " +
                  directory.parent_path().string());
}

void listApplications(const Request& request, std::ostream& out, std::ostream& notes) {
  const fs::path parent = documentsOfAll();
  std::error_code error;
  std::map<fs::path, Row> found;
  for (const auto& entry : fs::directory_iterator(parent, error)) {
    if (const auto row = rowOf(entry.path())) found.emplace(entry.path(), *row);
  }
  if (error && error != std::errc::no_such_file_or_directory) {
    throw ReadError(parent.string() + " cannot be read: " + error.message());
  }
  if (found.empty()) return note(notes, "no application has stores in " + parent.string());
  const auto sheet = makeSheet(request.format, out);
  sheet->begin("", {"Application", "Bytes", "Changed", "Directory"});
  for (const auto& [path, row] : found) sheet->add(row);
  sheet->end();
}

}  // namespace inspect
