#include "tools/collector/page_api.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <limits>
#include <utility>

#include "tools/collector/page.h"
#include "tools/collector/refusal.h"
#include "tools/common/text.h"

namespace collector {
namespace {

constexpr long long kAnyNumber = std::numeric_limits<long long>::max();
constexpr auto kJson = "application/json";

/// Answers with the document that `write` writes.
void answer(httplib::Response& response, const auto& write) {
  response.set_content(tools::jsonText(write), kJson);
}

/// Compression takes seconds instead of milliseconds, for answers that stay in this network. The
/// server has no other switch; the request is its own, and not const.
void leaveUncompressed(const httplib::Request& request) {
  const_cast<httplib::Request&>(request).headers.erase("Accept-Encoding");
}

void putRows(tools::JsonWriter& writer, const std::vector<Row>& rows) {
  tools::put(writer, "rows");
  writer.StartArray();
  for (const Row& row : rows) putRow(writer, row);
  writer.EndArray();
}

/// The entries of a journal, newest first.
void answer(httplib::Response& response, const Journal& journal,
            void (*putOne)(tools::JsonWriter&, const Exchange&)) {
  long long start = 0;
  const std::vector<Journal::Entry> entries = journal.since(start);
  answer(response, [&](tools::JsonWriter& writer) {
    writer.StartArray();
    std::for_each(entries.rbegin(), entries.rend(),
                  [&](const Journal::Entry& entry) { putOne(writer, *entry); });
    writer.EndArray();
  });
}

/// The body of a request; a body without a length is none.
std::string bodyOf(const httplib::Request& request, const httplib::ContentReader& read) {
  constexpr std::size_t kMaxBytes = 64'000;
  std::string body;
  if (!request.has_header("Content-Length") || request.is_multipart_form_data()) return body;
  read([&](const char* data, std::size_t size) {
    body.append(data, size);
    return body.size() <= kMaxBytes;
  });
  if (body.size() > kMaxBytes) throw Refusal(413, "the document is too long");
  return body;
}

Range rangeOf(const Parameters& parameters) {
  Range range;
  range.after = numberOf(parameters, "after", 0, kAnyNumber);
  range.limit = numberOf(parameters, "limit", 500, 10'000);
  if (parameters.contains("before")) range.before = numberOf(parameters, "before", 0, kAnyNumber);
  range.newest = !parameters.contains("after");
  return range;
}

}  // namespace

PageApi::PageApi(Records& records, PageGuard guard, std::vector<std::string> tokens)
    : records_(records), guard_(std::move(guard)), tokens_(std::move(tokens)) {}

void PageApi::route(httplib::Server& server) {
  constexpr std::array<std::pair<const char*, Answer>, 12> kReadings{{
      {"/", &PageApi::page},
      {"/api/summary", &PageApi::summary},
      {"/api/rows", &PageApi::rows},
      {R"(/api/rows\.ndjson)", &PageApi::rowsAsLines},
      {R"(/api/rows\.csv)", &PageApi::rowsAsTable},
      {"/api/sessions", &PageApi::sessions},
      {"/api/batches", &PageApi::batches},
      {"/api/batches/([0-9]{1,18})/body", &PageApi::batchBody},
      {"/api/handshakes", &PageApi::handshakes},
      {"/api/stream", &PageApi::stream},
      {"/api/wait", &PageApi::wait},
      {"/api/behaviour", &PageApi::behaviour},
  }};
  for (const auto& [path, answer] : kReadings) {
    server.Get(path, [this, answer = answer](const auto& request, auto& response) {
      guarded(request, response, [&] { (this->*answer)(request, response); });
    });
  }
  server.Post("/api/reset", [this](const auto& request, auto& response, const auto& /*read*/) {
    guarded(request, response, [&] { reset(response); });
  });
  server.Post("/api/behaviour", [this](const auto& request, auto& response, const auto& read) {
    guarded(request, response, [&] { change(bodyOf(request, read), response); });
  });
}

/// Calls `answer` if the request is admitted, adds the headers of every answer and turns exceptions
/// into answers.
void PageApi::guarded(const httplib::Request& request, httplib::Response& response,
                      const std::function<void()>& answer) {
  for (const auto& [name, value] : {std::pair("X-Content-Type-Options", "nosniff"),
                                    {"Cache-Control", "no-store"},
                                    {"X-Frame-Options", "DENY"},
                                    {"Content-Security-Policy", "default-src 'none'"},
                                    {"Referrer-Policy", "no-referrer"}}) {
    response.set_header(name, value);
  }
  response.status = 200;
  leaveUncompressed(request);
  try {
    if (guard_.admits(request, response)) answer();
  } catch (const QueryError& error) {
    refuse(response, 400, error.what());
  } catch (const Refusal& refusal) {
    refuse(response, refusal.status, refusal.what());
  } catch (const std::exception& error) {
    refuse(response, 500, error.what());
  }
}

void PageApi::page(const httplib::Request& /*request*/, httplib::Response& response) {
  const std::string nonce = randomToken();
  response.headers.erase("Content-Security-Policy");
  response.set_header("Content-Security-Policy", pagePolicy(nonce));
  response.set_content(pageWith(nonce), "text/html; charset=utf-8");
}

void PageApi::summary(const httplib::Request& /*request*/, httplib::Response& response) {
  const Journal::Counts batches = records_.batches.counts();
  const Journal::Counts handshakes = records_.handshakes.counts();
  RowReader reader(records_.data.path());
  answer(response, [&](tools::JsonWriter& writer) {
    writer.StartObject();
    reader.putSummary(writer);
    tools::member(writer, "batches", batches.all);
    tools::member(writer, "invalidBatches", batches.faulty);
    tools::member(writer, "handshakes", handshakes.all);
    tools::member(writer, "refusedHandshakes", handshakes.faulty);
    tools::member(writer, "needsToken", guard_.needsToken());
    tools::put(writer, "tokens");
    writer.StartArray();
    for (const std::string& token : tokens_) tools::put(writer, tools::asUtf8(token));
    writer.EndArray();
    writer.EndObject();
  });
}

void PageApi::rows(const httplib::Request& request, httplib::Response& response) {
  const Filter filter(request.params, {"after", "before", "limit"});
  RowReader reader(records_.data.path());
  const std::vector<Row> found = reader.read(filter, rangeOf(request.params));
  answer(response, [&](tools::JsonWriter& writer) {
    writer.StartObject();
    putRows(writer, found);
    tools::member(writer, "total", reader.count(filter));
    writer.EndObject();
  });
}

void PageApi::rowsAsLines(const httplib::Request& request, httplib::Response& response) {
  send(Export::Format::ndjson, request, response);
}

void PageApi::rowsAsTable(const httplib::Request& request, httplib::Response& response) {
  send(Export::Format::csv, request, response);
}

void PageApi::send(Export::Format format, const httplib::Request& request,
                   httplib::Response& response) {
  const bool isTable = format == Export::Format::csv;
  const auto rows = std::make_shared<Export>(records_.data.path(), Filter(request.params, {}),
                                             format, slotOf(waits_));
  response.set_header("Content-Disposition", std::string("attachment; filename=\"rows.") +
                                                 (isTable ? "csv\"" : "ndjson\""));
  response.set_chunked_content_provider(
      isTable ? "text/csv; charset=utf-8" : "application/x-ndjson",
      [this, rows](std::size_t, httplib::DataSink& sink) {
        return !records_.notifier.ended() && rows->send(sink);
      });
}

void PageApi::sessions(const httplib::Request& /*request*/, httplib::Response& response) {
  RowReader reader(records_.data.path());
  answer(response, [&](tools::JsonWriter& writer) { reader.putSessions(writer); });
}

void PageApi::batches(const httplib::Request& /*request*/, httplib::Response& response) {
  answer(response, records_.batches, putBatch);
}

void PageApi::batchBody(const httplib::Request& request, httplib::Response& response) {
  const Journal::Entry batch = records_.batches.find(std::stoll(request.matches[1].str()));
  if (!batch || !batch->body) return refuse(response, 404, "this body is not stored");
  response.set_content(*batch->body, "text/plain; charset=utf-8");
}

void PageApi::handshakes(const httplib::Request& /*request*/, httplib::Response& response) {
  answer(response, records_.handshakes, putHandshake);
}

void PageApi::stream(const httplib::Request& request, httplib::Response& response) {
  Parameters start = request.params;
  if (const std::string id = request.get_header_value("Last-Event-ID"); !id.empty()) {
    start.erase("after");
    start.emplace("after", id);
  }
  const long long last = RowReader(records_.data.path()).last();
  const auto events = std::make_shared<Stream>(records_, numberOf(start, "after", last, kAnyNumber),
                                               slotOf(streams_));
  response.set_chunked_content_provider(
      "text/event-stream",
      [events](std::size_t, httplib::DataSink& sink) { return events->send(sink); });
}

/// Rows that were sent again do not count, unless "state" asks for them.
void PageApi::wait(const httplib::Request& request, httplib::Response& response) {
  Filter filter(request.params, {"after", "count", "timeout"});
  if (!request.has_param("state")) filter.excludeRepeats();
  Range range{.after = numberOf(request.params, "after", 0, kAnyNumber)};
  range.limit = numberOf(request.params, "count", 1, 10'000);
  const std::chrono::seconds timeout(numberOf(request.params, "timeout", 5, 60));
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  const std::shared_ptr<void> slot = slotOf(waits_);
  RowReader reader(records_.data.path());
  std::vector<Row> found;
  bool isLast = false;
  do {
    const unsigned long long seen = records_.notifier.count();
    found = reader.read(filter, range);
    isLast = std::ssize(found) >= range.limit || std::chrono::steady_clock::now() >= deadline ||
             !records_.notifier.waitBeyond(seen, deadline);
  } while (!isLast);
  if (std::ssize(found) < range.limit) response.status = 408;
  answer(response, [&](tools::JsonWriter& writer) {
    writer.StartObject();
    putRows(writer, found);
    writer.EndObject();
  });
}

void PageApi::reset(httplib::Response& response) {
  records_.clear();
  response.status = 204;
}

void PageApi::behaviour(const httplib::Request& /*request*/, httplib::Response& response) {
  response.set_content(records_.behaviour.text(), kJson);
}

void PageApi::change(std::string document, httplib::Response& response) {
  records_.behaviour.change(document);
  records_.notifier.notify();
  response.set_content(records_.behaviour.text(), kJson);
}

std::shared_ptr<void> PageApi::slotOf(Slots& slots) {
  std::shared_ptr<void> slot = slots.acquire();
  if (!slot) throw Refusal(503, "too many answers are under way");
  return slot;
}

}  // namespace collector
