#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

#include "Marbleway/platform/platform.h"
#include "Marbleway/store/schema.h"

// The measured library, and the bare program's files.
namespace marbleway::bench {

/// Directories on a disk and in a file system in memory.
struct Places {
  std::filesystem::path disk, memory;
};

/// The parts of the table; each prints its lines.
void measureRecording(const Places& places);
void measureRefusals(const Places& places);
void measureBatches(const Places& places);
void measureStartUp(const Places& places);
void measureFootprint(const Places& places);

/// A network without cost: it drops batches, and answers the handshake at once or never.
class NoNetwork : public platform::HttpClient {
 public:
  enum class Handshake { answered, unanswered };
  explicit NoNetwork(Handshake handshake) : handshake_(handshake) {}

  void post(platform::HttpRequest request,
            std::function<void(std::optional<platform::HttpResponse>)> done) override;

  /// The size of the latest document.
  std::size_t documentBytes() const { return documentBytes_; }

 private:
  Handshake handshake_;
  std::size_t documentBytes_ = 0;
};

/// Starts the library in `directory` without network, logging and a running main loop, so that no
/// timer fires. `replacement` holds further services to replace.
std::shared_ptr<NoNetwork> startLibrary(const std::filesystem::path& directory,
                                        NoNetwork::Handshake handshake,
                                        platform::Platform replacement = {});

/// The bare program's stores: copies of the library's in the same directory. The library has been
/// started before.
class BareStores {
 public:
  explicit BareStores(std::filesystem::path directory);

  std::string file(Store store) const;
  /// The sixteen readings; the number of rows.
  long readAll() const;
  /// The sixteen deletions of start-up.
  void purge() const;

 private:
  std::filesystem::path directory_;
};

/// Records an event with seven attributes, in a new dictionary, as an application does.
void trackPurchase();
/// Writes the same row as a bare program does.
void addBareEvent(const std::string& file);

/// An event with seven attributes as a row: session, name, attributes, time.
extern const char* const kEventRow[4];

/// Adds `count` such rows with the present time to the events of `file`, in one transaction.
void addEvents(const std::string& file, int count);

}  // namespace marbleway::bench
