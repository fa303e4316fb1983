#pragma once

#include <httplib.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/collector/connection.h"
#include "tools/collector/page_guard.h"
#include "tools/collector/records.h"
#include "tools/collector/stream.h"

namespace collector {

/// The page and what it reads and changes, under "/" and "/api/".
///
/// Each answer reads the data file over a connection of its own. Thread: those of the server.
class PageApi {
 public:
  PageApi(Records& records, PageGuard guard, std::vector<std::string> tokens);

  void route(httplib::Server& server);

 private:
  using Answer = void (PageApi::*)(const httplib::Request&, httplib::Response&);

  void guarded(const httplib::Request& request, httplib::Response& response,
               const std::function<void()>& answer);

  void page(const httplib::Request& request, httplib::Response& response);
  void summary(const httplib::Request& request, httplib::Response& response);
  void rows(const httplib::Request& request, httplib::Response& response);
  void rowsAsLines(const httplib::Request& request, httplib::Response& response);
  void rowsAsTable(const httplib::Request& request, httplib::Response& response);
  void sessions(const httplib::Request& request, httplib::Response& response);
  void batches(const httplib::Request& request, httplib::Response& response);
  void batchBody(const httplib::Request& request, httplib::Response& response);
  void handshakes(const httplib::Request& request, httplib::Response& response);
  void stream(const httplib::Request& request, httplib::Response& response);
  void wait(const httplib::Request& request, httplib::Response& response);
  void reset(httplib::Response& response);
  void behaviour(const httplib::Request& request, httplib::Response& response);
  void change(std::string document, httplib::Response& response);

  void send(Export::Format format, const httplib::Request& request, httplib::Response& response);
  static std::shared_ptr<void> slotOf(Slots& slots);

  Records& records_;
  const PageGuard guard_;
  const std::vector<std::string> tokens_;
  Slots streams_{24}, waits_{16};  // an export takes the slot of a wait
};

}  // namespace collector
