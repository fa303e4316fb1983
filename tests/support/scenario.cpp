#include "tests/support/scenario.h"

#include <fstream>
#include <regex>
#include <stdexcept>

namespace marbleway::testing {
namespace {

struct Line {
  int number;
  std::string text;
};
using Lines = std::vector<Line>;
/// The texts that stand for "$name".
using Variables = std::map<std::string, std::string>;

struct Scenario {
  std::string title;
  Lines lines;
};

bool isIndented(const Line& line) { return line.text.starts_with("  "); }

// The parts of `text` between blanks of two or more.
std::vector<std::string> cells(const std::string& text) {
  static const std::regex cell("\\S+( \\S+)*");
  return {std::sregex_token_iterator(text.begin(), text.end(), cell), {}};
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
    if (!isQuoted && (c == '{' || c == '[')) ++depth;
    if (!isQuoted && (c == '}' || c == ']')) --depth;
    if (c != ' ' || isQuoted || depth > 0) {
      part += text[i];
    } else if (!part.empty()) {
      arguments.emplace_back(std::exchange(part, {}));
    }
  }
  if (!part.empty()) throw std::runtime_error("unbalanced: " + part);
  return arguments;
}

std::string withVariables(const std::string& text, const Variables& variables) {
  static const std::regex name(R"(\$[a-zA-Z]+|\\x([0-9A-F]{2}))");  // or a byte, as "\xFF"
  std::string replaced;
  auto last = text.begin();
  for (std::sregex_iterator match(text.begin(), text.end(), name), end; match != end; ++match) {
    replaced.append(last, (*match)[0].first);
    last = (*match)[0].second;
    if ((*match)[1].matched) {
      replaced += static_cast<char>(std::stoi((*match)[1].str(), nullptr, 16));
    } else {
      const auto variable = variables.find(match->str());
      if (variable == variables.end()) throw std::runtime_error("no variable " + match->str());
      replaced.append(variable->second);
    }
  }
  return replaced.append(last, text.end());
}

std::string joined(const std::vector<std::string>& effects) {
  std::string text;
  for (const std::string& effect : effects) text.append("\n  ").append(effect);
  return text;
}

// Runs the lines of one scenario.
class Runner {
 public:
  Runner(std::string file, Interface interface) : file_(std::move(file)), interface_(interface) {}

  void run(const Lines& lines) { run(lines, 0, {{"$documents", world_.directory.path()}}); }

 private:
  // Runs `lines` from `first` on; an "each" runs what follows it once a row.
  void run(const Lines& lines, std::size_t first, Variables variables) {
    for (std::size_t i = first; i < lines.size();) {
      std::size_t next = i + 1;
      while (next < lines.size() && isIndented(lines[next])) ++next;
      const std::span<const Line> indented(lines.data() + i + 1, next - i - 1);
      const std::string& text = lines[i].text;
      if (text.starts_with("each ")) {
        for (const Variables& row : rowsOf(text, indented, variables)) run(lines, next, row);
        return;
      }
      if (text.starts_with("let ")) {
        const std::size_t equals = text.find(" = ");
        variables[text.substr(4, equals - 4)] = withVariables(text.substr(equals + 3), variables);
      } else {
        runStep(lines[i], indented, variables);
      }
      i = next;
    }
  }

  // The rows of an "each": its cells, on its line and the indented ones, taken in turn by its
  // variables.
  static std::vector<Variables> rowsOf(const std::string& each, std::span<const Line> indented,
                                       const Variables& variables) {
    const std::size_t equals = each.find(" = ");
    const auto names = cells(each.substr(5, equals == std::string::npos ? equals : equals - 5));
    std::string all = equals == std::string::npos ? "" : each.substr(equals + 3);
    for (const Line& line : indented) all.append("  ").append(line.text);
    const auto values = cells(all);
    if (values.size() % names.size() != 0) throw std::runtime_error("a cell too few: " + each);

    std::vector<Variables> rows;
    for (std::size_t i = 0; i < values.size(); ++i) {
      if (i % names.size() == 0) rows.push_back(variables);
      rows.back()[names[i % names.size()]] = withVariables(values[i], variables);
    }
    return rows;
  }

  void runStep(const Line& line, std::span<const Line> more, const Variables& variables) {
    const std::size_t arrow = line.text.find(" -> ");
    const std::string call = withVariables(line.text.substr(0, arrow), variables);
    std::string tail = arrow == std::string::npos ? "" : line.text.substr(arrow + 4);
    for (const Line& each : more) tail.append("  ").append(each.text);
    std::vector<std::string> expected = cells(withVariables(tail, variables));
    std::erase(expected, "nothing");

    Arguments arguments = argumentsIn(call);
    const bool isChecked = arguments.at(0).text() != "unchecked";
    if (!isChecked) arguments.erase(arguments.begin());
    const std::string name = arguments.at(0).text();
    const Step step = findStep(name, interface_);
    if (step == nullptr) throw std::runtime_error("no step " + name);
    step(world_, {arguments.begin() + 1, arguments.end()});
    const auto effects = world_.takeEffects();
    if (!isChecked) return;
    EXPECT_EQ(joined(expected), joined(effects))
        << file_ << ":" << line.number << ": " << call.substr(0, 300);
  }

  const std::string file_;
  const Interface interface_;
  ObservedWorld world_;
};

// The scenarios of a file. Lines in front of the first one belong to each of them.
std::vector<Scenario> scenariosIn(const std::filesystem::path& file) {
  std::ifstream stream(file);
  std::vector<Scenario> scenarios;
  Lines common;
  std::string text;
  for (int number = 1; std::getline(stream, text); ++number) {
    if (text.empty() || text.starts_with("#")) continue;
    if (text.starts_with("== ")) {
      scenarios.push_back({text.substr(3), common});
    } else {
      (scenarios.empty() ? common : scenarios.back().lines).push_back({number, text});
    }
  }
  return scenarios;
}

}  // namespace

Argument::Argument(std::string text) : text_(std::move(text)) {
  if (const auto value = valueFromJSON(text_)) {
    value_ = *value;
  } else if (text_.size() >= 2 && text_.starts_with('"') && text_.ends_with('"')) {
    value_ = text_.substr(1, text_.size() - 2);  // with bytes that JSON does not allow
  }
}

Argument::operator const Dictionary&() const {
  const auto* dictionary = value_.as<Dictionary>();
  if (dictionary == nullptr) throw std::runtime_error("no dictionary: " + text_);
  return *dictionary;
}

void runScenarios(const std::filesystem::path& file, Interface interface) {
  const auto scenarios = scenariosIn(file);
  ASSERT_FALSE(scenarios.empty()) << file;
  for (const auto& [title, lines] : scenarios) {
    SCOPED_TRACE(title);
    if (title.ends_with("(C++)") && interface == Interface::c) continue;
    if (title.ends_with("(C)") && interface == Interface::cpp) continue;
    try {
      Runner(file.filename(), interface).run(lines);
    } catch (const std::exception& error) {
      ADD_FAILURE() << file.filename() << ": " << error.what();
    }
  }
}

}  // namespace marbleway::testing
