#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "examples/todo/analytics.h"
#include "examples/todo/app.h"
#include "examples/todo/list.h"
#include "examples/todo/system.h"

namespace {

constexpr auto kUsage = R"(usage: todo [options] [command]
A to-do list: one command, or a prompt for many; "todo help" shows the commands.

  --file FILE          the list; "todo.md" in the data directory by default
  --data DIRECTORY     "todo" in ~/.local/share or %LOCALAPPDATA%
  --open LINK          opens a link first, such as "todo://list?mrbw_dlid=spring"
  --notification FILE  receives a push message first, a JSON file
  --collector URL      records how the program is used and sends it there, such as
                       http://127.0.0.1:8080/v2/; $TODO_COLLECTOR by default; without it nothing
                       is recorded
  --token TOKEN        the project token; $TODO_TOKEN or "todo" by default

The analytics write their lines to standard error.
)";

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Arguments {
  std::string file, data, link, notification, collector, token, command;
  bool asksForHelp = false;
};

std::string variable(const char* name, const std::string& otherwise) {
  const char* const value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : otherwise;
}

std::string dataDirectory() {
  const std::string data = todo::system::dataDirectory();
  if (data.empty()) throw UsageError("there is no home directory; use --data");
  return data + "/todo";
}

Arguments readArguments(std::span<char* const> words) {
  Arguments read;
  const std::map<std::string, std::string*, std::less<>> options{
      {"--file", &read.file},           {"--data", &read.data},
      {"--open", &read.link},           {"--notification", &read.notification},
      {"--collector", &read.collector}, {"--token", &read.token}};
  std::size_t i = 0;
  for (; i < words.size() && std::string_view(words[i]).starts_with("--"); i += 2) {
    const std::string name = words[i];
    read.asksForHelp = name == "--help";
    if (read.asksForHelp) return read;
    const auto option = options.find(name);
    if (option == options.end()) throw UsageError("unknown option " + name);
    if (i + 1 == words.size()) throw UsageError(name + " needs a value");
    *option->second = words[i + 1];
  }
  for (; i < words.size(); ++i) read.command.append(words[i]).append(" ");

  if (read.data.empty()) read.data = dataDirectory();
  if (read.file.empty()) read.file = read.data + "/todo.md";
  if (read.collector.empty()) read.collector = variable("TODO_COLLECTOR", "");
  if (read.token.empty()) read.token = variable("TODO_TOKEN", "todo");
  return read;
}

volatile std::sig_atomic_t endingSignal = 0;

/// Runs commands until the input ends. Commands that do not come from a keyboard are printed.
void prompt(todo::App& app) {
  const bool isKeyboard = todo::system::isKeyboard();
  std::string line;
  while (!app.isOver && endingSignal == 0) {
    if (isKeyboard) std::cout << "todo> ";
    if (!std::getline(std::cin, line)) break;
    if (!isKeyboard) std::cout << "todo> " << todo::oneLine(line) << '\n';
    run(app, line);
  }
  if (isKeyboard && !app.isOver) std::cout << '\n';
}

/// Runs what the arguments ask for. False when their command failed.
bool runArguments(todo::App& app, const Arguments& arguments) {
  if (!arguments.link.empty()) run(app, "open " + arguments.link);
  if (!arguments.notification.empty()) run(app, "push " + arguments.notification);
  if (!arguments.command.empty()) return run(app, arguments.command);
  prompt(app);
  return true;
}

}  // namespace

int main(int count, char** words) {
  std::cout << std::unitbuf;  // keeps the order with the library's lines on standard error
  Arguments arguments;
  try {
    arguments = readArguments({words + 1, words + count});
  } catch (const UsageError& error) {
    std::cerr << "todo: " << error.what() << " (see --help)\n";
    return 2;
  }
  if (arguments.asksForHelp) {
    std::cout << kUsage;
    return 0;
  }
  // The first signal ends the prompt, so that the session ends properly; a second one ends the
  // program.
  todo::system::onEnd([](int signal) { endingSignal = signal; });
  todo::App app{arguments.file};
  try {
    todo::analytics::start({arguments.collector, arguments.token, arguments.data + "/analytics"},
                           [&](std::string_view link) { run(app, "open " + std::string(link)); });
  } catch (const std::invalid_argument& error) {
    std::cerr << "todo: " << error.what() << '\n';
    return 2;
  }
  const bool hasSucceeded = runArguments(app, arguments);
  todo::analytics::stop();
  if (endingSignal != 0) return 128 + endingSignal;
  return hasSucceeded ? 0 : 1;
}
