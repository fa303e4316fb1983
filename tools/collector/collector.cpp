#include "tools/collector/collector.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <ostream>
#include <stdexcept>

#include "tools/collector/batch_reader.h"
#include "tools/collector/handshake.h"
#include "tools/collector/page.h"
#include "tools/collector/refusal.h"

namespace collector {
namespace {

// In bytes. A batch holds all that a device has pending, a handshake two short texts.
constexpr std::size_t kLongestBatch = 1'000'000'000;
constexpr std::size_t kLongestHandshake = 64'000;
constexpr auto kJson = "application/json";

struct Resource {
  std::string_view path;
  const char* method;  // the only one it knows
};
constexpr std::array<Resource, 3> kResources{
    {{"/", "GET"}, {"/v2/mobile/init", "POST"}, {"/v2/mobile/batch", "POST"}}};

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

}  // namespace

Collector::Collector(const Settings& settings, std::ostream& log)
    : tokens_(settings.tokens),
      handshakeAnswer_(handshakeAnswer(settings.configFile)),
      data_(settings.dataFile),
      failuresLeft_(settings.failBatches),
      log_(log) {
  route();
  port_ = bind(settings.host, settings.port);
  listening_ = std::async(std::launch::async, [this] { return server_.listen_after_bind(); });
  while (!server_.is_running()) {
    if (listening_.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready) {
      throw std::runtime_error("the server does not start");
    }
  }
  print("listening on http://" + settings.host + ":" + std::to_string(port_) + "/v2/");
}

Collector::~Collector() {
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
  const bool any = port == 0;
  if (any) port = server_.bind_to_any_port(host);
  if (any ? port > 0 : server_.bind_to_port(host, port)) return port;
  throw std::runtime_error("cannot listen on " + host + " port " + std::to_string(port));
}

void Collector::route() {
  post("/v2/mobile/init", kLongestHandshake, &Collector::handshake);
  post("/v2/mobile/batch", kLongestBatch, &Collector::batch);
  server_.Get("/", [this](const httplib::Request& request, httplib::Response& response) {
    Entry entry = entryOf(request);
    entry.what = "page";
    const std::string nonce = unguessable();
    conclude(entry, response, pageWith(nonce));
    response.set_content(response.body, "text/html; charset=utf-8");
    response.set_header("Content-Security-Policy", pagePolicy(nonce));
  });
  server_.set_error_handler([this](const httplib::Request& request, httplib::Response& response) {
    if (response.body.empty()) turnAway(request, response);
  });
}

void Collector::post(const char* path, std::size_t longest, Handler handler) {
  server_.Post(
      path, [this, longest, handler](const httplib::Request& request, httplib::Response& response,
                                     const httplib::ContentReader& read) {
        Entry entry = entryOf(request);
        std::string body;
        try {
          std::string document = receive(request, read, longest, entry);
          body = (this->*handler)(document, entry);
        } catch (const Refusal& refusal) {
          entry.status = refusal.status;
          entry.what = refusal.what();
        } catch (const std::exception& error) {
          entry.status = 500;
          entry.what = error.what();
        }
        conclude(entry, response, entry.status == 200 ? body : errorBody(entry.what));
      });
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

std::string Collector::handshake(std::string& document, Entry& entry) {
  const Announcement announcement = readAnnouncement(document);
  entry.what = inQuotes(announcement.bundleID) + " on " + inQuotes(announcement.os);
  return handshakeAnswer_;
}

std::string Collector::batch(std::string& document, Entry& entry) {
  if (failuresLeft_ > 0 && failuresLeft_-- > 0) throw Refusal(503, "refused as asked");
  DataFile::Batch batch(data_);
  readBatch(document, [&](const Kind& kind, auto texts) { batch.keep(kind, texts); });
  const Tally tally = batch.commit();
  entry.tally = tally;
  entry.what = std::to_string(tally.rows) + " rows, " + std::to_string(tally.newRows) + " new, " +
               std::to_string(tally.rows - tally.newRows) + " seen again";
  return "{}";
}

/// Answers what no handler takes, and what is not even a request.
void Collector::turnAway(const httplib::Request& request, httplib::Response& response) {
  Entry entry = entryOf(request);
  entry.status = response.status;
  entry.what = response.status == 404 ? "nothing is here" : "cannot be answered";
  for (const Resource& resource : kResources) {
    if (request.path != resource.path || request.method == resource.method) continue;
    entry.status = 405;
    entry.what = std::string("takes nothing but ") + resource.method;
    response.set_header("Allow", resource.method);
  }
  conclude(entry, response, errorBody(entry.what));
}

/// Writes a request down, prints its line and fills in its answer.
void Collector::conclude(const Entry& entry, httplib::Response& response, const std::string& body) {
  data_.note(entry);
  print(entry.method + " " + entry.path + " " + std::to_string(entry.status) + " " + entry.what);
  response.status = entry.status;
  response.set_content(body, body.starts_with('{') ? kJson : "text/plain");
}

void Collector::print(const std::string& line) {
  const std::scoped_lock lock(logMutex_);
  log_ << line << std::endl;
}

}  // namespace collector
