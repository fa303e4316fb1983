// The library on GLib's main loop, as in a program with a GTK window.
#include <Marbleway/platform/manual_loop.h>
#include <glib-unix.h>

#include <algorithm>
#include <csignal>
#include <optional>

#include "examples/loops/use.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
namespace platform = marbleway::platform;

/// A loop without a thread, which GLib's default context pumps when something is due. It exists
/// until the process ends, as everything that is installed must.
class ContextLoop : public platform::ManualLoop {
 public:
  ContextLoop() {
    GSource* const source = g_source_new(&functions, sizeof(Source));
    reinterpret_cast<Source*>(source)->loop = this;
    g_source_attach(source, nullptr);
  }

  // Called on any thread: wakes the context, which may be waiting.
  void post(std::function<void()> task) override {
    ManualLoop::post(std::move(task));
    g_main_context_wakeup(nullptr);
  }
  std::shared_ptr<platform::Timer> repeat(std::chrono::nanoseconds period,
                                          std::function<void()> task) override {
    auto timer = ManualLoop::repeat(period, std::move(task));
    g_main_context_wakeup(nullptr);
    return timer;
  }

 private:
  struct Source {
    GSource base;
    ContextLoop* loop;
  };

  /// True to dispatch now; otherwise `wait` is the time to wait in milliseconds, -1 for no limit.
  static gboolean prepare(GSource* source, gint* wait) {
    const auto due = reinterpret_cast<Source*>(source)->loop->nextDue();
    *wait = -1;
    if (!due) return FALSE;
    const auto left = std::chrono::ceil<milliseconds>(*due - std::chrono::steady_clock::now());
    *wait = static_cast<gint>(std::clamp(left, 0ms, milliseconds(1h)).count());
    return *wait == 0 ? TRUE : FALSE;
  }
  static gboolean dispatch(GSource* source, GSourceFunc /*callback*/, gpointer /*data*/) {
    reinterpret_cast<Source*>(source)->loop->runDue();
    return G_SOURCE_CONTINUE;
  }
  static inline GSourceFuncs functions{prepare, nullptr, dispatch, nullptr, nullptr, nullptr};
};

}  // namespace

int main(int count, char** words) {
  static const auto loop = std::make_shared<ContextLoop>();
  static GMainLoop* const running = g_main_loop_new(nullptr, FALSE);
  static std::optional<example::Ending> ending;
  const auto end = [](gpointer /*data*/) -> gboolean {
    ending.emplace();
    loop->repeat(20ms, [] {
      if (ending->isOver()) g_main_loop_quit(running);
    });
    return G_SOURCE_REMOVE;
  };
  g_unix_signal_add(SIGINT, end, nullptr);
  if (example::begin(loop, count, words)) end(nullptr);
  g_main_loop_run(running);
  g_main_loop_unref(running);
  return ending->status();
}
