#pragma once

#include <string>

namespace collector {

/// What an application sends at its start.
struct HandshakeRequest {
  std::string os, bundleID;
};

/// Reads a handshake's body; throws a Refusal (400) naming the first fault.
HandshakeRequest readHandshake(std::string& document);

/// The body that answers every handshake: {"Data": ...} around the configuration in `file`, an
/// object with the members "Config" and "NetworkMonitoring", or around the default with no file.
/// A section and a SessionTimeout that the file leaves out are the default's.
///
/// Throws std::runtime_error, with the reason, for a file that cannot serve: not readable, no such
/// object, or a SessionTimeout that is not a number of at least 60 seconds.
std::string handshakeAnswer(const std::string& file);

}  // namespace collector
