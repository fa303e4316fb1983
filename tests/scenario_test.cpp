#include "tests/support/scenario.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <map>

// Runs the scenarios of each file through both interfaces. A step whose effects are not exactly the
// expected ones, in order, is a failure at its line.
namespace marbleway::testing {
namespace {

using std::filesystem::path;

// A step or a definition, with the indented lines below it.
struct Line {
  int number;
  std::string text;
};
using Lines = std::vector<Line>;
struct Scenario {
  std::string title;
  Lines lines;
};
// The texts that stand for "$name"; of two that begin alike the longer comes first.
using Variables = std::map<std::string, std::string, std::greater<>>;

// The scenarios of a file. Lines in front of the first one belong to each of them.
std::vector<Scenario> scenariosIn(const path& file) {
  std::ifstream stream(file);
  std::vector<Scenario> scenarios;
  Lines common;
  std::string text;
  for (int number = 1; std::getline(stream, text); ++number) {
    if (text.empty() || text.starts_with("#")) continue;
    Lines& lines = scenarios.empty() ? common : scenarios.back().lines;
    if (text.starts_with("== ")) {
      scenarios.push_back({text.substr(3), common});
    } else if (text.starts_with("  ")) {
      lines.back().text.append("\n").append(text);
    } else {
      lines.push_back({number, text});
    }
  }
  return scenarios;
}

void replaceAll(std::string& text, std::string_view name, std::string_view value) {
  for (std::size_t i = 0; (i = text.find(name, i)) != std::string::npos; i += value.size()) {
    text.replace(i, name.size(), value);
  }
}

// "\xFF" is a byte.
std::string withVariables(std::string text, const Variables& variables) {
  for (const auto& [name, value] : variables) replaceAll(text, name, value);
  for (std::size_t i = 0; (i = text.find("\\x", i)) != std::string::npos; ++i) {
    text.replace(i, 4, 1, static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16)));
  }
  return text;
}

// The parts of `text` between two blanks or more, or ends of lines.
std::vector<std::string> cells(std::string_view text) {
  std::vector<std::string> cells;
  for (std::size_t begin; (begin = text.find_first_not_of(" \n")) != std::string_view::npos;) {
    text.remove_prefix(begin);
    const std::size_t end = std::min({text.find("  "), text.find('\n'), text.size()});
    cells.emplace_back(text.substr(0, end));
    text.remove_prefix(end);
  }
  return cells;
}

// The parts of `text` between blanks outside of quotes and brackets.
Arguments argumentsIn(const std::string& text) {
  Arguments arguments;
  std::string part;
  int depth = 0;
  bool isQuoted = false;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    const char c = i < text.size() ? text[i] : ' ';
    if (isQuoted && c == '\\') part += text.at(i++);
    if (c == '"') isQuoted = !isQuoted;
    if (!isQuoted) depth += (c == '{' || c == '[') - (c == '}' || c == ']');
    if (c != ' ' || isQuoted || depth > 0) {
      part += text[i];
    } else if (!part.empty()) {
      arguments.emplace_back(std::exchange(part, {}));
    }
  }
  if (!part.empty()) throw std::runtime_error("unbalanced: " + part);
  return arguments;
}

// What stands in front of the first `mark` or end of line, and what behind it.
std::pair<std::string, std::string> divided(const std::string& text, std::string_view mark) {
  const std::size_t end = std::min(text.find(mark), text.find('\n'));
  if (end == std::string::npos) return {text, ""};
  return {text.substr(0, end), text.substr(text[end] == '\n' ? end : end + mark.size())};
}

// The rows of an "each": its cells, taken in turn by its variables.
std::vector<Variables> rowsOf(const std::string& each, const Variables& variables) {
  const auto [head, rest] = divided(each, " = ");
  const auto names = cells(head), values = cells(rest);
  if (values.size() % names.size() != 0) throw std::runtime_error("a cell too few: " + each);
  std::vector<Variables> rows(values.size() / names.size(), variables);
  for (std::size_t i = 0; i < values.size(); ++i) {
    rows[i / names.size()][names[i % names.size()]] = withVariables(values[i], variables);
  }
  return rows;
}

// One scenario in a world of its own.
class Runner {
 public:
  explicit Runner(Interface interface) : interface_(interface) {}

  void run(const Lines& lines) {
    run(lines, {{"$documents", world_.directory.path().generic_string()}});
  }

 private:
  // An "each" runs what follows it once a row.
  void run(std::span<const Line> lines, Variables variables) {
    for (; !lines.empty(); lines = lines.subspan(1)) {
      const auto& [number, text] = lines.front();
      if (text.starts_with("each ")) {
        for (const Variables& row : rowsOf(text.substr(5), variables)) run(lines.subspan(1), row);
        return;
      }
      if (text.starts_with("let ")) {
        const auto [name, value] = divided(text.substr(4), " = ");
        variables[name] = withVariables(value, variables);
      } else {
        runLine(lines.front(), variables);
      }
    }
  }

  void runLine(const Line& line, const Variables& variables) {
    const auto [step, effects] = divided(line.text, " -> ");
    auto expected = cells(withVariables(effects, variables));
    std::erase(expected, "nothing");
    const std::string call = withVariables(step, variables);
    Arguments words = argumentsIn(call);
    const auto first = words.begin() + (call.starts_with("unchecked ") ? 1 : 0);
    runStep(first->text(), world_, {first + 1, words.end()}, interface_);
    const auto found = world_.takeEffects();
    if (first != words.begin()) return;
    EXPECT_EQ(expected, found) << "line " << line.number << ": " << call;
  }

  const Interface interface_;
  ObservedWorld world_;
};

class ScenarioTest : public ::testing::TestWithParam<path> {};

TEST_P(ScenarioTest, Holds) {
  ::testing::internal::CaptureStderr();
  for (const auto& [title, lines] : scenariosIn(GetParam())) {
    for (const auto& [interface, other] :
         {std::pair(Interface::cpp, "(C)"), {Interface::c, "(C++)"}}) {
      SCOPED_TRACE(title + (interface == Interface::c ? ", through C" : ""));
      if (title.ends_with(other)) continue;
      try {
        Runner(interface).run(lines);
      } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
      }
    }
  }
  // No part of the library writes past the console.
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

std::vector<path> scenarioFiles() {
  const std::filesystem::directory_iterator files(SCENARIOS), end;
  std::vector<path> scenarios(files, end);
  std::erase_if(scenarios, [](const path& file) { return file.extension() != ".scenario"; });
  return scenarios;
}

INSTANTIATE_TEST_SUITE_P(All, ScenarioTest, ::testing::ValuesIn(scenarioFiles()),
                         [](const auto& test) { return test.param.stem().string(); });

}  // namespace
}  // namespace marbleway::testing
