#include "tools/collector/collector.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <utility>

#include "tools/collector/batch_reader.h"
#include "tools/collector/handshake.h"
#include "tools/collector/page.h"
#include "tools/collector/page_guard.h"
#include "tools/collector/refusal.h"

namespace collector {
namespace {

constexpr auto kJson = "application/json";
constexpr std::size_t kThreads = 64;  // more than all answers that may take long

/// What is done to an answer, by Fault.
struct FaultResponse {
  int status;  // instead of 200; 0: there is none
  std::string_view body;
  const char* what;  // ends the request's line
};
constexpr std::array<FaultResponse, 8> kSpoilings{{
    {200, "", ""},
    {200, "<!doctype html><title>Welcome to the guest network</title>", "; answered without JSON"},
    {204, "", "; answered without content"},
    {401, "", ""},
    {500, "", ""},
    {200, "", "; answered late"},
    {0, "", "; never answered"},
    {0, "", "; connection reset"},
}};

constexpr std::array<std::pair<std::string_view, const char*>, 5> kMethods{
    // the only ones
    {{"/", "GET"},
     {"/api/behaviour", "GET, POST"},
     {"/api/reset", "POST"},
     {"/v2/mobile/init", "POST"},
     {"/v2/mobile/batch", "POST"}}};

/// What the server itself adds to a request's headers.
constexpr std::string_view kOwnHeaders = "REMOTE_ADDR REMOTE_PORT LOCAL_ADDR LOCAL_PORT";

const FaultResponse& spoilingOf(Fault fault) { return kSpoilings[static_cast<std::size_t>(fault)]; }

Entry entryOf(const httplib::Request& request) {
  Entry entry;
  entry.method = request.method.empty() ? "?" : printable(request.method);
  entry.path = request.path.empty() ? "?" : printable(request.path);
  return entry;
}

/// The only value of a header; nothing when it is absent or given more than once.
std::optional<std::string> header(const httplib::Request& request, const char* name) {
  if (request.get_header_value_count(name) != 1) return std::nullopt;
  return request.get_header_value(name);
}

/// What the headers of a client's request deserve.
std::optional<Refusal> refusalOf(const httplib::Request& request,
                                 const std::vector<std::string>& tokens) {
  const auto token = header(request, "mrbw-project-token");
  if (!token) return Refusal(401, "header \"mrbw-project-token\" is not given exactly once");
  if (std::find(tokens.begin(), tokens.end(), *token) == tokens.end()) {
    return Refusal(401, "header \"mrbw-project-token\" holds an unknown token");
  }
  for (const char* name : {"Accept", "Content-Type"}) {
    if (header(request, name) == kJson) continue;
    return Refusal(400, "header " + inQuotes(name) + " is not \"application/json\"");
  }
  return std::nullopt;
}

std::string errorBody(const std::string& fault) {
  rapidjson::StringBuffer body;
  rapidjson::Writer<rapidjson::StringBuffer> writer(body);
  writer.StartObject();
  writer.Key("Error");
  writer.String(fault.c_str());
  writer.EndObject();
  return body.GetString();
}

/// Refuses what is to be refused as asked.
void refuseFor(Fault fault) {
  const int status = spoilingOf(fault).status;
  if (status >= 400) throw AskedRefusal(status);
}

/// Turns what would be answered into what is answered; a refusal is not dressed up.
void spoil(Fault fault, Entry& entry, std::string& body) {
  const FaultResponse& spoiling = spoilingOf(fault);
  if (entry.status != 200 && spoiling.status != 0) return;
  entry.what += spoiling.what;
  entry.status = spoiling.status;
  if (spoiling.status != 200 || !spoiling.body.empty()) body = spoiling.body;
}

Exchange exchangeOf(const httplib::Request& request) {
  Exchange exchange;
  exchange.received = millisecondsNow();
  exchange.token = request.get_header_value("mrbw-project-token");
  for (const auto& [name, value] : request.headers) {
    if (kOwnHeaders.find(name) == kOwnHeaders.npos) exchange.headers.emplace_back(name, value);
  }
  return exchange;
}

/// A copy for the page, of a body that is about to be read in place.
std::shared_ptr<const std::string> keptBody(const std::string& document) {
  if (document.size() > Journal::kMaxBodyBytes) return nullptr;
  return std::make_shared<const std::string>(document);
}

/// Empty where none is needed.
std::string pageTokenOf(const Settings& settings) {
  if (!settings.pageToken.empty() || isLoopback(settings.host)) return settings.pageToken;
  return unguessable();
}

}  // namespace

// A batch holds all that a device has pending, a handshake two short texts.
const std::array<Collector::Resource, 2> Collector::kResources{
    {{"/v2/mobile/init", 64'000, Request::handshake, &Records::handshakes, &Collector::handshake},
     {"/v2/mobile/batch", 1'000'000'000, Request::batch, &Records::batches, &Collector::batch}}};

Collector::Collector(const Settings& settings, std::ostream& log)
    : tokens_(settings.tokens),
      records_(settings.dataFile, settings.configFile),
      failuresLeft_(settings.failBatches),
      log_(log) {
  port_ = bind(settings.host, settings.port);
  const std::string url = "http://" + settings.host + ":" + std::to_string(port_);
  const std::string token = pageTokenOf(settings);
  page_.emplace(records_, PageGuard(settings.host, token), url + "/v2/", tokens_);
  route();
  listening_ = std::async(std::launch::async, [this] { return server_.listen_after_bind(); });
  while (!server_.is_running()) {
    if (listening_.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready) {
      throw std::runtime_error("the server does not start");
    }
  }
  print("listening on " + url + "/v2/");
  print("page at " + url + "/" + (token.empty() ? "" : "?token=" + token));
}

Collector::~Collector() {
  records_.bell.end();
  server_.stop();
  listening_.wait();
}

int Collector::bind(const std::string& host, int port) {
  // Only a port that no other program listens on: the server's own default shares one.
  server_.set_socket_options([](socket_t socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  server_.set_tcp_nodelay(true);
  server_.set_keep_alive_max_count(1);  // no idle connection holds up the end
  server_.new_task_queue = [] { return std::make_unique<httplib::ThreadPool>(kThreads).release(); };
  const bool any = port == 0;
  if (any) port = server_.bind_to_any_port(host);
  if (any ? port > 0 : server_.bind_to_port(host, port)) return port;
  throw std::runtime_error("cannot listen on " + host + " port " + std::to_string(port));
}

void Collector::route() {
  for (const Resource& resource : kResources) post(resource);
  page_->route(server_);
  server_.set_error_handler([this](const httplib::Request& request, httplib::Response& response) {
    if (response.body.empty()) reject(request, response);
  });
}

void Collector::post(const Resource& resource) {
  server_.Post(resource.path,
               [this, &resource](const auto& request, auto& response, const auto& read) {
                 answer(resource, request, response, read);
               });
}

void Collector::answer(const Resource& resource, const httplib::Request& request,
                       httplib::Response& response, const httplib::ContentReader& read) {
  Entry entry = entryOf(request);
  Exchange exchange = exchangeOf(request);
  const Fault fault = records_.behaviour.faultOf(resource.kind);
  std::string body;
  try {
    std::string document = receive(request, read, resource.longest, entry);
    exchange.body = keptBody(document);
    refuseFor(fault);
    body = (this->*resource.take)(document, entry, exchange);
  } catch (const AskedRefusal& refusal) {
    entry.status = refusal.status;
    entry.what = refusal.what();
  } catch (const Refusal& refusal) {
    entry.status = refusal.status;
    exchange.fault = entry.what = refusal.what();
  } catch (const std::exception& error) {
    entry.status = 500;
    exchange.fault = entry.what = error.what();
  }
  if (entry.status != 200) body = errorBody(entry.what);
  spoil(fault, entry, body);
  write(records_.*resource.journal, entry, std::move(exchange), body);
  conclude(entry, response, body);
  delayOrReset(fault, request);
}

/// Writes an exchange into its journal and tells the page.
void Collector::write(Journal& journal, const Entry& entry, Exchange exchange,
                      const std::string& answer) {
  exchange.status = entry.status;
  exchange.answer = answer;
  exchange.bytes = entry.bytes;
  exchange.tally = entry.tally;
  if (exchange.n == 0) exchange.n = journal.number();
  journal.add(std::move(exchange));
  records_.bell.ring();
}

/// Delays the answer or keeps it from being given. Where too many are delayed already, one that was
/// to be late comes at once, and one that was never to be given ends at once.
void Collector::delayOrReset(Fault fault, const httplib::Request& request) {
  constexpr std::chrono::seconds kDelay(3);
  if (const std::shared_ptr<void> place = disturbed_.take()) {
    if (fault == Fault::slow) records_.bell.pauseUntil(std::chrono::steady_clock::now() + kDelay);
    if (fault == Fault::never) waitForLeave(request, records_.bell);
  }
  if (spoilingOf(fault).status == 0) resetConnection(request);
}

/// The request's body. What is refused is read to its end and dropped: a connection closed with
/// bytes unread may cost the client its answer.
std::string Collector::receive(const httplib::Request& request, const httplib::ContentReader& read,
                               std::size_t longest, Entry& entry) const {
  std::optional<Refusal> refusal = refusalOf(request, tokens_);
  std::string body;
  if (!refusal)
    body.reserve(std::min(longest, request.get_header_value<std::size_t>("Content-Length")));
  const auto take = [&](const char* data, std::size_t size) {
    entry.bytes += size;
    if (entry.bytes > longest && !refusal) refusal = Refusal(413, "the document is too long");
    if (!refusal) body.append(data, size);
    return true;
  };
  const bool whole = request.is_multipart_form_data()
                         ? read([](const httplib::MultipartFormData&) { return true; }, take)
                         : read(take);
  if (refusal) throw Refusal(*refusal);
  if (!whole) throw Refusal(400, "the document is cut short");
  return body;
}

std::string Collector::handshake(std::string& document, Entry& entry, Exchange& /*exchange*/) {
  const Announcement announcement = readAnnouncement(document);
  entry.what = inQuotes(announcement.bundleID) + " on " + inQuotes(announcement.os);
  return records_.behaviour.answer();
}

std::string Collector::batch(std::string& document, Entry& entry, Exchange& exchange) {
  if (failuresLeft_ > 0 && failuresLeft_-- > 0) throw AskedRefusal(503);
  exchange.n = records_.batches.number();
  DataFile::Batch batch(records_.data, {exchange.token, exchange.n});
  readBatch(document, [&](const Kind& kind, auto texts) { batch.keep(kind, texts); });
  const Tally tally = batch.commit();
  entry.tally = tally;
  entry.what = std::to_string(tally.rows) + " rows, " + std::to_string(tally.newRows) + " new, " +
               std::to_string(tally.rows - tally.newRows) + " seen again";
  return "{}";
}

/// Answers what no handler takes, and what is not even a request.
void Collector::reject(const httplib::Request& request, httplib::Response& response) {
  Entry entry = entryOf(request);
  entry.status = response.status;
  entry.what = response.status == 404 ? "nothing is here" : "cannot be answered";
  for (const auto& [path, method] : kMethods) {
    if (request.path != path || request.method == method) continue;
    entry.status = 405;
    entry.what = std::string("takes nothing but ") + method;
    response.set_header("Allow", method);
  }
  conclude(entry, response, errorBody(entry.what));
}

/// Writes a request down, prints its line and fills in its answer.
void Collector::conclude(const Entry& entry, httplib::Response& response, const std::string& body) {
  records_.data.note(entry);
  print(entry.method + " " + entry.path + " " + std::to_string(entry.status) + " " + entry.what);
  response.status = entry.status;
  if (!body.empty()) response.set_content(body, body.starts_with('{') ? kJson : "text/html");
}

void Collector::print(const std::string& line) {
  const std::scoped_lock lock(logMutex_);
  log_ << line << std::endl;
}

}  // namespace collector
