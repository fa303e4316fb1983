#pragma once

#include <rapidjson/document.h>

#include <mutex>
#include <string>

namespace collector {

/// A fault of an answer, as asked for.
enum class Fault { none, notJSON, noContent, unauthorized, error, slow, never, reset };

/// The two requests of the protocol.
enum class Request { handshake, batch };

/// How requests are answered, which can be changed while the server runs. Thread: any.
class Behaviour {
 public:
  /// Begins with the configuration in `file` (see handshakeAnswer) and without a fault.
  explicit Behaviour(const std::string& file);

  /// The body that answers the next handshake.
  std::string answer() const;

  /// The fault of the next answer to such a request.
  Fault faultOf(Request request) const;

  /// All of it, as a JSON object.
  std::string text() const;

  /// Takes over the members of `document`, any subset of those of `text`; throws a Refusal (400)
  /// at the first fault, and changes nothing then. A SessionTimeout may be shorter than in a file.
  void change(std::string& document);

  /// How often it has been changed.
  long long changes() const;

 private:
  void set(std::size_t position, const rapidjson::Value& value);

  mutable std::mutex mutex_;
  rapidjson::Document answer_;  // to a handshake
  std::size_t fault_ = 0;       // positions in the tables of names
  std::size_t appliesTo_ = 0;
  long long changes_ = 0;
};

}  // namespace collector
