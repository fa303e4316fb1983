#include "examples/todo/app.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "examples/todo/analytics.h"
#include "examples/todo/list.h"

namespace todo {
namespace {

/// A command of the list.
struct Command {
  std::string_view name;
  std::string_view argument;  // empty: none
  std::string_view explanation;
  void (*action)(App& app, const std::string& argument);
  bool isView = false;  // links may open it, from any source
};

const Command& commandNamed(std::string_view name);
void showHelp(App& app, const std::string& none);

/// Removes the first word from `text` and returns it.
std::string takeWord(std::string& text) {
  const std::size_t end = std::min(text.find(' '), text.size());
  std::string word = text.substr(0, end);
  text = oneLine(text.substr(end));
  return word;
}

List::iterator numbered(List& list, const std::string& number) {
  std::size_t position = 0;
  const char* const end = number.data() + number.size();
  const auto read = std::from_chars(number.data(), end, position);
  if (read.ec != std::errc() || read.ptr != end || position == 0 || position > list.size()) {
    throw Problem("there is no to-do number " + number);
  }
  return list.begin() + static_cast<std::ptrdiff_t>(position - 1);
}

void show(const List& list, std::size_t index) {
  const char* const box = list[index].isDone ? " [x] " : " [ ] ";
  std::cout << std::setw(3) << index + 1 << box << list[index].text << '\n';
}

List stored(const App& app) {
  std::error_code ignored;  // a file whose status is unknown is not missing
  const auto kind = std::filesystem::status(app.file, ignored).type();
  return kind == std::filesystem::file_type::not_found ? List() : readList(app.file);
}

void add(App& app, const std::string& text) {
  List list = stored(app);
  list.push_back({text});
  writeList(app.file, list);
  show(list, list.size() - 1);
  const auto words = 1 + std::count(text.begin(), text.end(), ' ');
  analytics::added(static_cast<std::size_t>(words), openItems(list));
}

void showList(App& app, const std::string& /*none*/) {
  const List list = stored(app);
  for (std::size_t i = 0; i < list.size(); ++i) show(list, i);
  std::cout << openItems(list) << " of " << list.size() << " to do\n";
  analytics::listShown(list.size(), openItems(list));
  if (app.isTipShown) return;
  app.isTipShown = true;
  std::cout << "Tip: lists like paper, too? See Paperworks' pocket notebooks with \"tip\".\n";
  analytics::tipShown();
}

void tick(App& app, const std::string& number) {
  List list = stored(app);
  const auto item = numbered(list, number);
  if (item->isDone) throw Problem("that is done already");
  item->isDone = true;
  writeList(app.file, list);
  std::cout << openItems(list) << " left to do\n";
  analytics::ticked(list.size(), openItems(list));
}

void remove(App& app, const std::string& number) {
  List list = stored(app);
  const auto item = numbered(list, number);
  const bool wasDone = item->isDone;
  list.erase(item);
  writeList(app.file, list);
  std::cout << list.size() << " left\n";
  analytics::removed(wasDone);
}

void search(App& app, const std::string& text) {
  const List list = stored(app);
  std::size_t matches = 0;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (list[i].text.find(text) == std::string::npos) continue;
    show(list, i);
    ++matches;
  }
  std::cout << matches << " found\n";
  analytics::searched(matches);
}

void import(App& app, const std::string& file) {
  try {
    List list = stored(app);
    const List more = readList(file);
    list.insert(list.end(), more.begin(), more.end());
    writeList(app.file, list);
    std::cout << more.size() << " imported\n";
    analytics::imported(more.size());
  } catch (const std::exception& error) {
    analytics::importFailed(error);
    throw;
  }
}

void readTip(App& /*app*/, const std::string& /*none*/) {
  std::cout << "Paperworks' pocket notebooks: 48 pages, dotted, 4.50 each. \"order\" sends one.\n";
  analytics::tipRead();
}

void orderTip(App& /*app*/, const std::string& /*none*/) {
  std::cout << "A notebook is on its way (not really).\n";
  analytics::tipOrdered();
}

void login(App& /*app*/, const std::string& nameAndCompany) {
  std::string company = nameAndCompany;
  const std::string name = takeWord(company);
  if (company.empty()) throw Problem("login needs NAME COMPANY");
  std::cout << "Hello " << name << " of " << company << '\n';
  analytics::loggedIn(name, company);
}

void logout(App& /*app*/, const std::string& /*none*/) {
  std::cout << "Goodbye\n";
  analytics::loggedOut();
}

void open(App& app, const std::string& link) {
  analytics::linkOpened(link);
  constexpr std::string_view kScheme = "todo://";
  if (!link.starts_with(kScheme)) {
    std::cout << "Open in your browser: " << link << '\n';
    return;
  }
  const std::string view = link.substr(kScheme.size());
  const Command& command = commandNamed(view.substr(0, view.find_first_of("/?#")));
  if (!command.isView) throw Problem("a link opens views only");
  command.action(app, {});
}

void push(App& /*app*/, const std::string& file) {
  std::ostringstream payload;
  payload << std::ifstream(file).rdbuf();
  if (!analytics::pushReceived(payload.str())) throw Problem("the file holds no JSON object");
}

void walk(App& /*app*/, const std::string& /*none*/) {
  std::cout << "The desktop tells you when you pass one of Paperworks' shops.\n";
  analytics::walkStarted();
}

void crash(App& /*app*/, const std::string& /*none*/) {
  analytics::waitForServer();  // the session, and with it crash capture, starts with the answer
  throw std::logic_error("crashed as asked");
}

void quit(App& app, const std::string& /*none*/) { app.isOver = true; }

constexpr std::array<Command, 16> kCommands{{
    {"add", "TEXT", "write down a to-do", add},
    {"list", "", "show all to-dos", showList, true},
    {"done", "NUMBER", "tick one off", tick},
    {"remove", "NUMBER", "forget one", remove},
    {"search", "TEXT", "show those that contain the text", search},
    {"import", "FILE", "add the to-dos of another list", import},
    {"tip", "", "read the partner's tip", readTip, true},
    {"order", "", "order what the tip offers", orderTip},
    {"walk", "", "be told of shops and beacons nearby", walk},
    {"login", "NAME COMPANY", "log in", login},
    {"logout", "", "log out", logout},
    {"open", "LINK", "open a link such as todo://list", open},
    {"push", "FILE", "receive a push message, a JSON file", push},
    {"crash", "", "end by an uncaught exception", crash},
    {"help", "", "show the commands", showHelp, true},
    {"quit", "", "end, like the end of the input", quit},
}};

const Command& commandNamed(std::string_view name) {
  const auto* const found =
      std::find_if(kCommands.begin(), kCommands.end(),
                   [&](const Command& command) { return command.name == name; });
  if (found == kCommands.end()) throw Problem("no such command; \"help\" shows them all");
  return *found;
}

void showHelp(App& /*app*/, const std::string& /*none*/) {
  for (const Command& command : kCommands) {
    std::cout << std::left << std::setw(8) << command.name << std::setw(14) << command.argument
              << std::right << command.explanation << '\n';
  }
  analytics::helpShown();
}

void runCommand(App& app, std::string line) {
  const Command& command = commandNamed(takeWord(line));
  if (line.empty() == command.argument.empty()) return command.action(app, line);
  const char* const problem = line.empty() ? " needs " : " takes no argument";
  throw Problem(std::string(command.name).append(problem).append(command.argument));
}

}  // namespace

bool run(App& app, std::string_view line) {
  try {
    if (!oneLine(line).empty()) runCommand(app, oneLine(line));
    return true;
  } catch (const Problem& problem) {
    std::cerr << "todo: " << problem.what() << '\n';
    return false;
  }
}

}  // namespace todo
