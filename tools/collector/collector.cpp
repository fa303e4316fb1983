#include "tools/collector/collector.h"

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

/// What a fault makes of an answer.
struct FaultResponse {
  int status;  // instead of 200; 0: there is none
  std::string_view body;
  const char* what;  // ends the request's line
};
constexpr std::array<FaultResponse, 8> kFaultResponses{{
    // in the order of Fault
    {200, "", ""},
    {200, "<!doctype html><title>Welcome to the guest network</title>", "; answered without JSON"},
    {204, "", "; answered without content"},
    {401, "", ""},
    {500, "", ""},
    {200, "", "; answered late"},
    {0, "", "; never answered"},
    {0, "", "; connection reset"},
}};

/// The resources whose methods are limited.
constexpr std::array<std::pair<std::string_view, std::string_view>, 5> kMethods{
    {{"/", "GET"},
     {"/api/behaviour", "GET, POST"},
     {"/api/reset", "POST"},
     {"/v2/mobile/init", "POST"},
     {"/v2/mobile/batch", "POST"}}};

/// What the server itself adds to a request's headers.
constexpr std::string_view kOwnHeaders = "REMOTE_ADDR REMOTE_PORT LOCAL_ADDR LOCAL_PORT";

const FaultResponse& responseTo(Fault fault) {
  return kFaultResponses[static_cast<std::size_t>(fault)];
}

Entry entryOf(const httplib::Request& request) {
  Entry entry;
  entry.method = request.method.empty() ? "?" : tools::printable(request.method, 80);
  entry.path = request.path.empty() ? "?" : tools::printable(request.path, 80);
  return entry;
}

/// The only value of a header; nothing when it is absent or given more than once.
std::optional<std::string> header(const httplib::Request& request, const char* name) {
  if (request.get_header_value_count(name) != 1) return std::nullopt;
  return request.get_header_value(name);
}

/// What is wrong with the headers of a client's request.
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

/// Refuses the request if `fault` is a refusal.
void refuseFor(Fault fault) {
  const int status = responseTo(fault).status;
  if (status >= 400) throw AskedRefusal(status);
}

/// Applies `fault` to an answer; an answer that is a refusal stays one.
void applyFault(Fault fault, Entry& entry, std::string& body) {
  const FaultResponse& faultResponse = responseTo(fault);
  if (entry.status != 200 && faultResponse.status != 0) return;
  entry.what += faultResponse.what;
  entry.status = faultResponse.status;
  if (faultResponse.status != 200 || !faultResponse.body.empty()) body = faultResponse.body;
}

Exchange exchangeOf(const httplib::Request& request) {
  Exchange exchange;
  exchange.received = tools::millisecondsNow();
  exchange.token = request.get_header_value("mrbw-project-token");
  for (const auto& [name, value] : request.headers) {
    if (kOwnHeaders.find(name) == kOwnHeaders.npos) exchange.headers.emplace_back(name, value);
  }
  return exchange;
}

/// A copy for the page, of a body that is about to be parsed in place.
std::shared_ptr<const std::string> copyForPage(const std::string& document) {
  if (document.size() > Journal::kMaxBodyBytes) return nullptr;
  return std::make_shared<const std::string>(document);
}

/// Empty where none is needed.
std::string pageTokenOf(const Settings& settings) {
  if (!settings.pageToken.empty() || isLoopback(settings.host)) return settings.pageToken;
  return randomToken();
}

}  // namespace

const std::array<Collector::Resource, 2> Collector::kResources{
    {{"/v2/mobile/init", Request::handshake, &Records::handshakes, 64'000, &Collector::handshake},
     {"/v2/mobile/batch", Request::batch, &Records::batches, 64U << 20U, &Collector::batch}}};

Collector::Collector(const Settings& settings, std::ostream& log)
    : tokens_(settings.tokens),
      records_(settings.dataFile, settings.configFile),
      failuresLeft_(settings.failBatches),
      log_(log) {
  port_ = server_.listenOn(settings.host, settings.port);
  const std::string token = pageTokenOf(settings);
  page_.emplace(records_, PageGuard(settings.host, token, settings.allowedHosts), tokens_);
  route();
  server_.start();
  printAddresses(settings.host, token.empty() ? "" : "?token=" + token);
}

/// The addresses for a program and a browser on this machine; where every address is listened on,
/// also those for other machines, by this machine's name.
void Collector::printAddresses(const std::string& host, const std::string& query) {
  const auto url = [&](const std::string& name) {
    return "http://" + authority(name, port_) + "/";
  };
  const std::string own = host == "0.0.0.0" ? "127.0.0.1" : host == "::" ? "::1" : host;
  print("listening on " + url(own) + "v2/");
  print("page at " + url(own) + query);
  if (!isEveryAddress(host)) return;
  const std::string fromElsewhere = url(machineName());
  print("from other machines " + fromElsewhere + "v2/ and " + fromElsewhere + query);
}

Collector::~Collector() {
  records_.notifier.end();
  server_.stopAccepting();
}

void Collector::route() {
  for (const Resource& resource : kResources) post(resource);
  page_->route(server_);
  // Before the server reads the body of a request that nothing here answers.
  server_.set_pre_routing_handler([this](const auto& request, auto& response) {
    using Handled = httplib::Server::HandlerResponse;
    if (request.method == "GET" || request.method == "HEAD" || isKnown(request)) {
      return Handled::Unhandled;
    }
    response.status = 404;
    reject(request, response);
    return Handled::Handled;
  });
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
    if (const auto refusal = refusalOf(request, tokens_)) throw Refusal(*refusal);
    std::string document = receive(request, read, resource.maxBytes, entry);
    exchange.body = copyForPage(document);
    refuseFor(fault);
    body = (this->*resource.process)(document, entry, exchange);
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
  applyFault(fault, entry, body);
  write(records_.*resource.journal, entry, std::move(exchange), body);
  conclude(entry, response, body);
  delayOrReset(fault);
}

/// Adds an exchange to its journal and notifies the page.
void Collector::write(Journal& journal, const Entry& entry, Exchange exchange,
                      const std::string& answer) {
  exchange.status = entry.status;
  exchange.answer = answer;
  exchange.bytes = entry.bytes;
  exchange.tally = entry.tally;
  if (exchange.n == 0) exchange.n = journal.number();
  journal.add(std::move(exchange));
  records_.notifier.notify();
}

/// Delays or prevents the answer. Where too many are delayed already, one that was to be late is
/// given at once, and one that was never to be given is reset at once.
void Collector::delayOrReset(Fault fault) {
  constexpr std::chrono::seconds kDelay(3);
  if (const std::shared_ptr<void> slot = delays_.acquire()) {
    if (fault == Fault::slow)
      records_.notifier.pauseUntil(std::chrono::steady_clock::now() + kDelay);
    if (fault == Fault::never) Connection::current().waitForLeave();
  }
  if (responseTo(fault).status == 0) Connection::current().reset();
}

/// The request's body, decoded; throws a Refusal when there is more of it than `maxBytes`.
std::string Collector::receive(const httplib::Request& request, const httplib::ContentReader& read,
                               std::size_t maxBytes, Entry& entry) {
  const Refusal tooLong(413, "the document is too long");
  const auto length = request.get_header_value<std::size_t>("Content-Length");
  if (length > maxBytes) throw Refusal(tooLong);
  std::string body;
  body.reserve(length);
  const bool isWhole = read([&](const char* data, std::size_t size) {
    entry.bytes += size;
    if (entry.bytes <= maxBytes) body.append(data, size);
    return entry.bytes <= maxBytes;
  });
  if (entry.bytes > maxBytes) throw Refusal(tooLong);
  if (!isWhole) throw Refusal(400, "the document is cut short");
  return body;
}

std::string Collector::handshake(std::string& document, Entry& entry, Exchange& /*exchange*/) {
  const HandshakeRequest sent = readHandshake(document);
  entry.what = inQuotes(sent.bundleID) + " on " + inQuotes(sent.os);
  return records_.behaviour.answer();
}

std::string Collector::batch(std::string& document, Entry& entry, Exchange& exchange) {
  if (failuresLeft_ > 0 && failuresLeft_-- > 0) throw AskedRefusal(503);
  exchange.n = records_.batches.number();
  DataFile::Batch batch(records_.data, {exchange.token, exchange.n});
  readBatch(document, [&](const Kind& kind, auto texts) { batch.add(kind, texts); });
  const Tally tally = batch.commit();
  entry.tally = tally;
  entry.what = std::to_string(tally.rows) + " rows, " + std::to_string(tally.newRows) + " new, " +
               std::to_string(tally.rows - tally.newRows) + " seen again";
  return "{}";
}

bool Collector::isKnown(const httplib::Request& request) {
  return std::ranges::any_of(kMethods, [&](const auto& known) {
    return request.path == known.first && known.second.find(request.method) != known.second.npos;
  });
}

/// Answers what no handler takes, and what is no valid request.
void Collector::reject(const httplib::Request& request, httplib::Response& response) {
  Entry entry = entryOf(request);
  entry.status = response.status;
  entry.what = response.status == 404 ? "nothing is here" : "cannot be answered";
  for (const auto& [path, methods] : kMethods) {
    if (request.path != path || entry.status != 404) continue;
    entry.status = 405;
    entry.what = std::string("takes nothing but ").append(methods);
    response.set_header("Allow", std::string(methods));
  }
  conclude(entry, response, errorBody(entry.what));
}

/// Logs a request and fills in its answer.
void Collector::conclude(const Entry& entry, httplib::Response& response, const std::string& body) {
  records_.data.logRequest(entry);
  print(entry.method + " " + entry.path + " " + std::to_string(entry.status) + " " + entry.what);
  response.status = entry.status;
  if (!body.empty()) response.set_content(body, body.starts_with('{') ? kJson : "text/html");
}

void Collector::print(const std::string& line) {
  const std::scoped_lock lock(logMutex_);
  log_ << line << std::endl;
}

}  // namespace collector
